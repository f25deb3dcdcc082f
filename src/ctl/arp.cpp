#include "ctl/arp.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "common/owners.h"
#include "common/socket.h"
#include "common/wire.h"
#include "ctl/clock.h"
#include "ctl/udp.h"
#include "ctl/unit.h"

namespace ctl {

namespace {

// Offsets into an ARP packet for IPv4 over Ethernet.
enum Offset : size_t {
    kHardware = 0,
    kProtocol = 2,
    kSizes = 4,
    kOperation = 6,
    kSenderMac = 8,
    kSender = 14,
    kTargetMac = 18,
    kTarget = 24,
    kArpSize = 28,
};

constexpr uint16_t kEthernetAndIpv4Sizes = ETH_ALEN << 8 | sizeof(Address);
constexpr int kProbes = 3;
constexpr Milliseconds kProbeWait = 200;
constexpr uint16_t kDiscardPort = 9;

}  // namespace

UniqueFd OpenArp() {
    return UniqueFd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ARP)));
}

static Address ReadBytes(const uint8_t *bytes) {
    return Address{ReadBigEndian16(bytes)} << 16 | ReadBigEndian16(bytes + 2);
}

bool ReceiveArp(int sock, ArpPacket *packet) {
    uint8_t bytes[64];
    sockaddr_ll from{};
    socklen_t size = sizeof from;
    const ssize_t length =
        recvfrom(sock, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &size);
    if (length < static_cast<ssize_t>(kArpSize) || from.sll_pkttype == PACKET_OUTGOING ||
        ReadBigEndian16(bytes + kHardware) != ARPHRD_ETHER ||
        ReadBigEndian16(bytes + kProtocol) != ETH_P_IP ||
        ReadBigEndian16(bytes + kSizes) != kEthernetAndIpv4Sizes) {
        return false;
    }
    packet->request = ReadBigEndian16(bytes + kOperation) == ARPOP_REQUEST;
    packet->interface = from.sll_ifindex;
    memcpy(packet->senderMac, bytes + kSenderMac, ETH_ALEN);
    packet->sender = ReadBytes(bytes + kSender);
    packet->target = ReadBytes(bytes + kTarget);
    return true;
}

static void SendProbe(int sock, const Link &link, Address address) {
    uint8_t bytes[kArpSize] = {};
    WriteBigEndian16(bytes + kHardware, ARPHRD_ETHER);
    WriteBigEndian16(bytes + kProtocol, ETH_P_IP);
    WriteBigEndian16(bytes + kSizes, kEthernetAndIpv4Sizes);
    WriteBigEndian16(bytes + kOperation, ARPOP_REQUEST);
    memcpy(bytes + kSenderMac, link.mac, ETH_ALEN);
    WriteBigEndian16(bytes + kTarget, static_cast<uint16_t>(address >> 16));
    WriteBigEndian16(bytes + kTarget + 2, static_cast<uint16_t>(address));
    sockaddr_ll all{};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(ETH_P_ARP);
    all.sll_ifindex = link.index;
    all.sll_halen = ETH_ALEN;
    memset(all.sll_addr, 0xFF, ETH_ALEN);
    sendto(sock, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&all), sizeof all);
}

// Waits for anybody who sends from an address: its owner answers, or asks for others.
static bool HearSender(int sock, const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]) {
    const Stopwatch watch;
    while (watch.AwaitInput(sock, kProbeWait)) {
        ArpPacket packet;
        if (ReceiveArp(sock, &packet) && packet.interface == link.index &&
            packet.sender == address) {
            memcpy(mac, packet.senderMac, ETH_ALEN);
            return true;
        }
    }
    return false;
}

// What the kernel's table says of an address on a link.
static bool ReadTable(const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]) {
    const UniqueFile table(fopen("/proc/net/arp", "re"));
    char line[256];
    while (table && fgets(line, sizeof line, table.get())) {
        char ip[16];
        unsigned flags;
        char text[24];
        char device[IFNAMSIZ];
        if (sscanf(line, "%15s %*s %x %23s %*s %15s", ip, &flags, text, device) == 4 &&
            strcmp(ip, ToText(address).text) == 0 && strcmp(device, link.name) == 0) {
            return (flags & ATF_COM) != 0 && ReadMac(text, mac);
        }
    }
    return false;
}

// Has the kernel ask, by way of an empty datagram to a port where nothing listens.
static Holder AskKernel(const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]) {
    const UniqueFd sock = OpenUdp(link, 0, 0);
    if (!sock || !SendUdp(sock.get(), address, kDiscardPort, "", 0)) {
        return Holder::kUnknown;
    }
    for (int i = 0; i < kProbes; ++i) {
        Pause(kProbeWait);
        if (ReadTable(link, address, mac)) {
            return Holder::kSomebody;
        }
    }
    return Holder::kNobody;
}

Holder FindHolder(const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]) {
    const UniqueFd sock = OpenArp();
    if (!sock) {
        return AskKernel(link, address, mac);
    }
    for (int i = 0; i < kProbes; ++i) {
        SendProbe(sock.get(), link, address);
        if (HearSender(sock.get(), link, address, mac)) {
            return Holder::kSomebody;
        }
    }
    return Holder::kNobody;
}

}  // namespace ctl
