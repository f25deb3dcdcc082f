// This machine's interfaces, as far as units can be reached through them.
#pragma once

#include <linux/if_ether.h>
#include <net/if.h>

#include <cstdint>

#include "ctl/options.h"
#include "ctl/status.h"
#include "kirvex/packet.h"

namespace ctl {

// Addresses are in the machine's own byte order throughout this room; 0 is none.
using Address = uint32_t;

inline constexpr int kMostAddresses = 8;

using kx::AddressText;

// `none` (at most 15 characters) stands for no address; null is as good as "0.0.0.0".
AddressText ToText(Address address, const char *none = nullptr);

kx::MacText ToText(const uint8_t (&mac)[ETH_ALEN]);

// Reads four bytes in network order.
Address ReadNetworkOrder(const uint8_t *bytes);

// Reads exactly four decimal numbers with dots. Returns false for anything else.
bool ReadAddress(const char *text, Address *address);

// The address that was given with an option; 0 without one. Ends the program for what is none.
Address ReadOption(const char *what, const char *text);

// The netmask of a prefix length from 0 to 32, and back: -1 for a mask with holes.
Address MaskOf(int prefix);
int PrefixOf(Address mask);

struct Link {
    int index;  // the kernel's number
    char name[IFNAMSIZ];
    uint8_t mac[ETH_ALEN];
    int addressCount;
    struct {
        Address address;
        Address mask;
    } addresses[kMostAddresses];

    // Whether an address lies in one of the link's subnets, and whether it is the link's own.
    bool Fits(Address address) const;
    bool Owns(Address address) const;
    // Whether an address is one host's, and neither nobody's nor everybody's.
    bool IsOfOne(Address address) const;
};

struct Links {
    Link link[kMostLinks];
    int count = 0;

    const Link *begin() const { return link; }
    const Link *end() const { return link + count; }

    // The one with a kernel's number; null for one that is not used.
    const Link *Find(int index) const;
    // Whether an address lies in a subnet of any.
    bool Fit(Address address) const;
};

// Finds the interfaces that were asked for, or all that are up and can broadcast.
void FindLinks(const Options &options, Links *links);

}  // namespace ctl
