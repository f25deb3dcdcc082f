// Broadcasts that need no fitting address: whole IPv4/UDP datagrams (RFC 791, RFC 768) built here
// and handed to the link layer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/owners.h"

// The largest payload of a broadcast.
inline constexpr int kBroadcastPayloadSize = 1500;

// Broadcasts `size` bytes from and to a UDP port: from 0.0.0.0 to 255.255.255.255, and, when an
// interface is named and has addresses, from its own to its subnet's broadcast address. Returns 0
// when the first datagram was sent, else -1. Needs the right to open packet sockets.
int COM_SendUDPBroadcast(const char *device, uint16_t port, const void *data, int size);

namespace unit {
class FactSource;
}

namespace discovery {

// The same with at most kBroadcastPayloadSize bytes, and through a packet socket that is opened
// when *sock is empty and left open, as the kernel takes milliseconds to close one.
int BroadcastThrough(UniqueFd *sock, unit::FactSource &facts, const char *device, uint16_t port,
                     std::string_view payload);

// Sends `size` bytes from and to a UDP port, from 0.0.0.0 to 255.255.255.255, through a packet
// socket to one station of a link alone: `interface` is its index, `mac` 6 bytes. Prints nothing.
// Returns 0, or -1 with errno set.
int SendToStation(int sock, int interface, const uint8_t *mac, uint16_t port, const void *data,
                  size_t size);

}  // namespace discovery

// The Internet checksum (RFC 1071) of `length` bytes, ready to be stored big-endian. An odd last
// byte counts as the high byte of a word whose low byte is 0.
uint16_t COM_CalRawPkgChecksum(const void *buffer, size_t length);
