// Address resolution (RFC 826): who has an address, and whom others look for in vain.
#pragma once

#include <linux/if_ether.h>

#include <cstdint>

#include "common/owners.h"
#include "ctl/links.h"

namespace ctl {

struct ArpPacket {
    bool request;
    int interface;  // the kernel's number
    uint8_t senderMac[ETH_ALEN];
    Address sender;
    Address target;
};

// Opens a packet socket that hears all ARP of every link. Empty without the right to it.
UniqueFd OpenArp();

// Receives one packet if one is waiting. Returns false when none is, and for what is no ARP of IPv4
// over Ethernet or this machine's own.
bool ReceiveArp(int sock, ArpPacket *packet);

enum class Holder { kNobody, kSomebody, kUnknown };

// Asks a link who has an address, for at most 0.6 s, and writes the MAC of whoever answers. With
// the right to packet sockets the question comes from 0.0.0.0, as for the detection of duplicates
// (RFC 5227), and hosts of any subnet answer it; without it the kernel asks.
Holder FindHolder(const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]);

}  // namespace ctl
