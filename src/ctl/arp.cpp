#include "ctl/arp.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <netinet/if_ether.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstring>

#include "common/owners.h"
#include "common/socket.h"
#include "common/text.h"
#include "ctl/clock.h"
#include "ctl/udp.h"

namespace ctl {

namespace {

constexpr int kProbes = 3;
constexpr Milliseconds kProbeWait = 200;
constexpr uint16_t kDiscardPort = 9;

}  // namespace

UniqueFd OpenArp() {
    return UniqueFd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ARP)));
}

// What every ARP packet for IPv4 over Ethernet begins with.
static arphdr HeaderOf(uint16_t operation) {
    return {htons(ARPHRD_ETHER), htons(ETH_P_IP), ETH_ALEN, sizeof(Address), htons(operation)};
}

bool ReceiveArp(int sock, ArpPacket *packet) {
    ether_arp arp;
    sockaddr_ll from{};
    socklen_t size = sizeof from;
    const ssize_t length =
        recvfrom(sock, &arp, sizeof arp, 0, reinterpret_cast<sockaddr *>(&from), &size);
    const arphdr request = HeaderOf(ARPOP_REQUEST);
    if (length != sizeof arp || from.sll_pkttype == PACKET_OUTGOING ||
        memcmp(&arp.ea_hdr, &request, offsetof(arphdr, ar_op)) != 0) {
        return false;
    }
    packet->request = arp.arp_op == request.ar_op;
    packet->interface = from.sll_ifindex;
    memcpy(packet->senderMac, arp.arp_sha, ETH_ALEN);
    packet->sender = ReadNetworkOrder(arp.arp_spa);
    packet->target = ReadNetworkOrder(arp.arp_tpa);
    return true;
}

static void SendProbe(int sock, const Link &link, Address address) {
    const in_addr_t target = htonl(address);
    ether_arp arp{};
    arp.ea_hdr = HeaderOf(ARPOP_REQUEST);
    memcpy(arp.arp_sha, link.mac, ETH_ALEN);
    memcpy(arp.arp_tpa, &target, sizeof target);
    sockaddr_ll all{};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(ETH_P_ARP);
    all.sll_ifindex = link.index;
    all.sll_halen = ETH_ALEN;
    memset(all.sll_addr, 0xFF, ETH_ALEN);
    sendto(sock, &arp, sizeof arp, 0, reinterpret_cast<sockaddr *>(&all), sizeof all);
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
static bool ReadTable(int sock, const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]) {
    const sockaddr_in owner = InternetAddress(htonl(address), 0);
    arpreq request{};
    memcpy(&request.arp_pa, &owner, sizeof owner);
    CopyText(request.arp_dev, link.name);
    if (ioctl(sock, SIOCGARP, &request) == -1 || (request.arp_flags & ATF_COM) == 0) {
        return false;
    }
    memcpy(mac, request.arp_ha.sa_data, ETH_ALEN);
    return true;
}

// Has the kernel ask, by way of an empty datagram to a port where nothing listens.
static Holder AskKernel(const Link &link, Address address, uint8_t (&mac)[ETH_ALEN]) {
    const UniqueFd sock = OpenUdp(link, 0, 0);
    if (!sock || !SendUdp(sock.get(), address, kDiscardPort, "", 0)) {
        return Holder::kUnknown;
    }
    for (int i = 0; i < kProbes; ++i) {
        Pause(kProbeWait);
        if (ReadTable(sock.get(), link, address, mac)) {
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
