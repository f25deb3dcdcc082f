// The UDP end of the KIRVEX protocol: its sockets, and replies on their way to the requester.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "frame/message.h"
#include "kirvex/packet.h"

// Opens a UDP socket that is tied to an interface, for broadcasts too if wanted. Returns false with
// a message on failure; *sock may be open all the same.
bool OpenKirvexSocket(int *sock, const char *device, bool broadcast, const MessageOrigin &origin);

// Sends a packet. Returns 0, or -1 with a message.
int SendPacket(int sock, const sockaddr_in &peer, const uint8_t *packet, size_t size,
               const MessageOrigin &origin);

// A reply in the making.
struct KirvexReply {
    uint8_t packet[kx::kSearchReplySize];
    size_t size;

    void Set(KirvexField field, uint32_t value) { WriteInteger(packet, field, value); }
    int Send(int sock, const sockaddr_in &peer, const MessageOrigin &origin) const {
        return SendPacket(sock, peer, packet, size, origin);
    }
};

// A reply of `size` bytes to `request`, zeroed behind its header, with return code 0 and the MAC
// and address of the interface as they are now.
KirvexReply StartReply(const char *device, const uint8_t *request, size_t size);
