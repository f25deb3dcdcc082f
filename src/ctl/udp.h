// UDP over one chosen interface, for which no right is needed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/owners.h"
#include "ctl/links.h"

namespace ctl {

// Opens a socket that is tied to a link, whatever the routes say: every address counts as one of
// its neighbours', so that units of foreign subnets are reached, too. `source` is one of this
// machine's addresses, 0 for the one that the kernel takes; others may be bound to the same `port`
// (0: any). Empty with errno set on failure.
UniqueFd OpenUdp(const Link &link, Address source, uint16_t port);

// Returns false with errno set when it could not be sent.
bool SendUdp(int sock, Address address, uint16_t port, const void *data, size_t size);

struct Datagram {
    uint8_t data[4096 + 1];  // a zero byte follows what was received
    size_t size;
};

// Receives what is waiting. Returns false when nothing is.
bool ReceiveUdp(int sock, Datagram *datagram);

}  // namespace ctl
