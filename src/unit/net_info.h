// Facts about a network interface: addresses, default gateway, name servers, MAC, MTU.
#pragma once

#include <net/if.h>

#include <cstdint>
#include <span>

#include "common/owners.h"
#include "frame/message.h"

// Which fact COM_GetNetInfo returns, and in which form. Texts are terminated; the output must hold
// 24 bytes for a MAC text, 16 for an address text, 6 for a raw MAC, 4 for a raw address (network
// order) or the MTU. LASTn forms begin n bytes before the MAC's end. PADDED is "%03d" four times.
enum NetInfoSelector : int {
    NETINFO_MAC_HEX = 0,
    NETINFO_MAC_HEX_LOWER = 1,
    NETINFO_MAC_HEX_LAST4 = 2,
    NETINFO_MAC_HEX_LAST3 = 3,
    NETINFO_MAC_COLON = 4,
    NETINFO_MAC_COLON_LAST4 = 5,
    NETINFO_MAC_COLON_LAST3 = 6,
    NETINFO_MAC_RAW = 7,
    NETINFO_MAC_RAW_LAST4 = 8,
    NETINFO_MAC_RAW_LAST3 = 9,
    NETINFO_MAC_RAW_LAST2 = 10,
    NETINFO_ARP_MAC_HEX = 11,
    NETINFO_ARP_MAC_HEX_LOWER = 12,
    NETINFO_ARP_MAC_HEX_LAST4 = 13,
    NETINFO_ARP_MAC_HEX_LAST3 = 14,
    NETINFO_ARP_MAC_COLON = 15,
    NETINFO_ARP_MAC_COLON_LAST4 = 16,
    NETINFO_ARP_MAC_COLON_LAST3 = 17,
    NETINFO_ARP_MAC_RAW_LAST3 = 18,
    NETINFO_ARP_MAC_RAW_LAST2 = 19,
    NETINFO_IP_STR = 20,
    NETINFO_IP_PADDED = 21,
    NETINFO_IP_RAW = 22,
    NETINFO_BROADCAST_STR = 23,
    NETINFO_BROADCAST_PADDED = 24,
    NETINFO_BROADCAST_RAW = 25,
    NETINFO_NETMASK_STR = 26,
    NETINFO_NETMASK_PADDED = 27,
    NETINFO_NETMASK_RAW = 28,
    NETINFO_GATEWAY_STR = 29,
    NETINFO_GATEWAY_PADDED = 30,
    NETINFO_GATEWAY_RAW = 31,
    NETINFO_DNS1_STR = 32,
    NETINFO_DNS1_PADDED = 33,
    NETINFO_DNS2_STR = 34,
    NETINFO_DNS2_PADDED = 35,
    NETINFO_DNS1_RAW = 36,
    NETINFO_DNS2_RAW = 37,
    NETINFO_MTU = 38,
};

// What an address text reads when there is no such address.
inline constexpr char kNoAddressText[16] = "000.000.000.000";

// One fact of the interface `device` (for the ARP selectors: of the IPv4 address given in its
// place). Returns 0, or -1 with the failure value in `output`: zeros in the selector's form,
// kNoAddressText for address texts; the MTU is left as it was. An unknown selector writes
// "unknown".
int COM_GetNetInfo(int selector, const char *device, void *output);

// The interface name to use: null gives "eth0"; "auto" gives "ppp0" when "/etc/network/interfaces"
// has a line with "auto" and without "eth0", else "eth0"; any other name stands.
const char *COM_ConvertNetDevName(const char *name);

// The workers behind COM_GetNetInfo, each for its own range of selectors and with its results.
int COM_GetMAC(int selector, const char *device, void *output);

// Looks an IPv4 address up in the ARP table. Returns -1 whether it was found or not: judge
// `output`.
int COM_GetArpMAC(int selector, const char *address, void *output);
int COM_SubGetNetInfo(int selector, const char *device, void *output);

// The first default route of the whole table, whichever interface it belongs to.
int COM_SubGetGateway(int selector, const char *device, void *output);
int COM_SubGetDNS(int selector, const char *device, void *output);
int COM_GetMTU(int selector, const char *device, void *output);

namespace unit {

// Where several facts are fetched one after the other: the interface requests go through one IPv4
// datagram socket, which is lent or, if none is, opened at the first of them.
class FactSource {
  public:
    // `lent` must outlive the object; negative for none.
    explicit FactSource(int lent = -1) : lent_(lent) {}

    // As COM_GetNetInfo, each for its own range of selectors: a program that asks through these has
    // no code for what it never asks for.
    int Mac(int selector, const char *device, void *output);
    int Address(int selector, const char *device, void *output);
    int Gateway(int selector, const char *device, void *output);
    int NameServer(int selector, const char *device, void *output);
    int Mtu(const char *device, void *output);

    // Asks the kernel for one fact of `device`. Returns 0, or -1 with errno set; a socket that
    // can't be had is reported here, in the name of `origin`, and leaves errno 0.
    int Request(unsigned long code, const char *device, ifreq *request, MessageOrigin origin);

  private:
    int lent_;
    UniqueFd own_;
};

// NETINFO_DNS1_RAW and NETINFO_DNS2_RAW in one reading, with the messages of both.
void GetNameServers(std::span<uint8_t, 4> first, std::span<uint8_t, 4> second);

}  // namespace unit
