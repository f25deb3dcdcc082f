// UDP over one chosen interface, for which no right is needed.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "common/owners.h"
#include "ctl/links.h"

namespace ctl {

// Opens a socket that tells over which interface each datagram came, bound to a port (0: any) that
// others may be bound to as well. Empty with errno set on failure.
UniqueFd OpenUdp(uint16_t port);

struct Destination {
    int interface;   // the kernel's number
    Address source;  // one of this machine's addresses, 0 for the one that the kernel takes
    Address address;
    uint16_t port;
};

// Sends over exactly that interface, whatever the routes say: every address counts as one of its
// neighbours', so that units of foreign subnets are reached, too. Returns false with errno set.
bool SendUdp(int sock, const Destination &to, const void *data, size_t size);

struct Datagram {
    uint8_t data[4096 + 1];  // a zero byte follows what was received
    size_t size;
    int interface;  // the kernel's number
    Address source;
};

// Receives what is waiting. Returns false when nothing is.
bool ReceiveUdp(int sock, Datagram *datagram);

}  // namespace ctl
