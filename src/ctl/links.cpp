#include "ctl/links.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "common/text.h"

namespace ctl {

namespace {

struct FreeInterfaces {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};

}  // namespace

AddressText ToText(Address address, const char *none) {
    AddressText out;
    if (address == 0 && none) {
        CopyText(out.text, none);
    } else {
        snprintf(out.text, sizeof out.text, "%u.%u.%u.%u", address >> 24, address >> 16 & 255,
                 address >> 8 & 255, address & 255);
    }
    return out;
}

kx::MacText ToText(const uint8_t (&mac)[ETH_ALEN]) {
    return kx::ReadMac(mac, {0, ETH_ALEN});
}

Address ReadNetworkOrder(const uint8_t *bytes) {
    in_addr address;
    memcpy(&address, bytes, sizeof address);
    return ntohl(address.s_addr);
}

bool ReadAddress(const char *text, Address *address) {
    in_addr read;
    if (inet_pton(AF_INET, text, &read) != 1) {
        return false;
    }
    *address = ntohl(read.s_addr);
    return true;
}

Address ReadOption(const char *what, const char *text) {
    Address address = 0;
    if (text && (!ReadAddress(text, &address) || address == 0)) {
        Fail(kUsage, "the %s '%s' is no address", what, text);
    }
    return address;
}

Address MaskOf(int prefix) {
    return prefix == 0 ? 0 : ~Address{0} << (32 - prefix);
}

int PrefixOf(Address mask) {
    int prefix = 32;
    while (prefix >= 0 && MaskOf(prefix) != mask) {
        --prefix;
    }
    return prefix;
}

bool Link::Fits(Address address) const {
    for (int i = 0; i < addressCount; ++i) {
        if (((addresses[i].address ^ address) & addresses[i].mask) == 0) {
            return true;
        }
    }
    return false;
}

bool Link::Owns(Address address) const {
    for (int i = 0; i < addressCount; ++i) {
        if (addresses[i].address == address) {
            return true;
        }
    }
    return false;
}

bool Link::IsOfOne(Address address) const {
    bool all = address == 0 || address >= INADDR_UNSPEC_GROUP;
    for (int i = 0; i < addressCount; ++i) {
        const Address hosts = ~addresses[i].mask;
        const Address differing = addresses[i].address ^ address;
        all |= (differing & ~hosts) == 0 && ((address & hosts) == 0 || (~address & hosts) == 0);
    }
    return !all;
}

const Link *Links::Find(int index) const {
    for (const Link &one : *this) {
        if (one.index == index) {
            return &one;
        }
    }
    return nullptr;
}

bool Links::Fit(Address address) const {
    bool fitting = false;
    for (const Link &one : *this) {
        fitting |= one.Fits(address);
    }
    return fitting;
}

static bool IsWanted(const Options &options, const ifaddrs &interface) {
    if (options.interfaceCount == 0) {
        return (interface.ifa_flags & (IFF_UP | IFF_BROADCAST | IFF_LOOPBACK)) ==
               (IFF_UP | IFF_BROADCAST);
    }
    for (int i = 0; i < options.interfaceCount; ++i) {
        if (strcmp(options.interfaces[i], interface.ifa_name) == 0) {
            return true;
        }
    }
    return false;
}

static void AddLink(const ifaddrs &interface, Links *links) {
    const auto *physical = reinterpret_cast<const sockaddr_ll *>(interface.ifa_addr);
    if (links->count == kMostLinks || physical->sll_halen != ETH_ALEN) {
        return;
    }
    Link &link = links->link[links->count++];
    link = {};
    link.index = physical->sll_ifindex;
    CopyText(link.name, interface.ifa_name);
    memcpy(link.mac, physical->sll_addr, sizeof link.mac);
}

static Address HostOrder(const sockaddr *address) {
    return ntohl(reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr);
}

static void AddAddress(const ifaddrs &interface, Links *links) {
    for (int i = 0; i < links->count; ++i) {
        Link &link = links->link[i];
        // The address of an alias ("eth0:1") is the link's, too.
        const size_t length = strlen(link.name);
        const bool same = strncmp(link.name, interface.ifa_name, length) == 0 &&
                          (interface.ifa_name[length] == '\0' || interface.ifa_name[length] == ':');
        if (same && interface.ifa_netmask && link.addressCount < kMostAddresses) {
            link.addresses[link.addressCount++] = {HostOrder(interface.ifa_addr),
                                                   HostOrder(interface.ifa_netmask)};
        }
    }
}

static bool IsThere(const Links &links, const char *name) {
    for (const Link &link : links) {
        if (strcmp(link.name, name) == 0) {
            return true;
        }
    }
    return false;
}

void FindLinks(const Options &options, Links *links) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == -1) {
        __extension__ Fail(kNoRight, "can't list this machine's interfaces: %m");
    }
    const std::unique_ptr<ifaddrs, FreeInterfaces> owner(list);
    // All interfaces come before the first address.
    for (const ifaddrs *i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr) {
            continue;
        }
        if (i->ifa_addr->sa_family == AF_PACKET && IsWanted(options, *i)) {
            AddLink(*i, links);
        } else if (i->ifa_addr->sa_family == AF_INET) {
            AddAddress(*i, links);
        }
    }
    for (int i = 0; i < options.interfaceCount; ++i) {
        if (!IsThere(*links, options.interfaces[i])) {
            Fail(kUsage, "no Ethernet interface %s here; 'ip link' lists them",
                 options.interfaces[i]);
        }
    }
    if (links->count == 0) {
        Fail(kNoRight,
             "no interface is up and can broadcast: plug in the cable, or try 'ip link set eth0 "
             "up'");
    }
}

}  // namespace ctl
