#include "discovery/raw_broadcast.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "common/owners.h"
#include "common/text.h"
#include "common/wire.h"
#include "frame/message.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "COMMON";

static constexpr MessageOrigin kSenderOrigin{kSource, "COM_SendUDPBroadcast"};

namespace {

// Offsets into the datagram: the IPv4 header without options, the UDP header, the payload.
enum Offset : size_t {
    kVersion = 0,
    kTotalLength = 2,
    kTimeToLive = 8,
    kProtocol = 9,
    kHeaderChecksum = 10,
    kSourceAddress = 12,
    kDestinationAddress = 16,
    kSourcePort = 20,
    kDestinationPort = 22,
    kUdpLength = 24,
    kUdpChecksum = 26,
    kPayload = 28,
};

constexpr size_t kIpHeaderSize = 20;
constexpr size_t kUdpHeaderSize = 8;
constexpr uint8_t kIpv4WithoutOptions = 0x45;
constexpr uint8_t kTimeToLiveHops = 64;
constexpr uint8_t kEveryStation[ETH_ALEN] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

struct Payload {
    const void *data;
    size_t size;
};

// The sum of RFC 1071 over big-endian words, whose last carries are still to be folded.
uint32_t SumWords(const uint8_t *bytes, size_t length) {
    uint32_t sum = 0;
    for (; length > 1; bytes += 2, length -= 2) {
        sum += ReadBigEndian16(bytes);
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return length == 1 ? sum + static_cast<uint32_t>(bytes[0] << 8) : sum;
}

class Datagram {
  public:
    Datagram(in_addr source, in_addr destination, uint16_t port, const Payload &payload)
        : size_(kPayload + payload.size) {
        const uint16_t udpLength = static_cast<uint16_t>(kUdpHeaderSize + payload.size);
        memset(bytes_.data(), 0, kPayload);
        bytes_[kProtocol] = IPPROTO_UDP;
        memcpy(&bytes_[kSourceAddress], &source, sizeof source);
        memcpy(&bytes_[kDestinationAddress], &destination, sizeof destination);
        WriteBigEndian16(&bytes_[kSourcePort], port);
        WriteBigEndian16(&bytes_[kDestinationPort], port);
        WriteBigEndian16(&bytes_[kUdpLength], udpLength);
        if (payload.size > 0) {
            memcpy(&bytes_[kPayload], payload.data, payload.size);
        }
        // With the UDP length in its place, the empty IP header holds the pseudo-header's words.
        WriteBigEndian16(&bytes_[kTotalLength], udpLength);
        WriteBigEndian16(&bytes_[kUdpChecksum], COM_CalRawPkgChecksum(bytes_.data(), size_));
        WriteBigEndian16(&bytes_[kTotalLength], static_cast<uint16_t>(size_));
        bytes_[kVersion] = kIpv4WithoutOptions;
        bytes_[kTimeToLive] = kTimeToLiveHops;
        WriteBigEndian16(&bytes_[kHeaderChecksum],
                         COM_CalRawPkgChecksum(bytes_.data(), kIpHeaderSize));
    }

    bool Send(int sock, const sockaddr_ll &link, int flags) const {
        return sendto(sock, bytes_.data(), size_, flags, reinterpret_cast<const sockaddr *>(&link),
                      sizeof link) != -1;
    }

  private:
    std::array<uint8_t, kPayload + kBroadcastPayloadSize> bytes_;
    size_t size_;
};

}  // namespace

uint16_t COM_CalRawPkgChecksum(const void *buffer, size_t length) {
    uint32_t sum = SumWords(static_cast<const uint8_t *>(buffer), length);
    while (sum >> 16) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

// The index of the named interface; 0 when none is named or it has none.
static int InterfaceIndex(int sock, const char *device) {
    ifreq request{};
    if (!device) {
        return 0;
    }
    CopyText(request.ifr_name, device);
    return ioctl(sock, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

// A station of one interface's link.
static sockaddr_ll Station(int interface, const uint8_t *mac) {
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_IP);
    link.sll_ifindex = interface;
    link.sll_halen = ETH_ALEN;
    memcpy(link.sll_addr, mac, ETH_ALEN);
    return link;
}

// The ends of a datagram inside the subnet of an interface. An address that was set without a
// broadcast address, as BusyBox's ifup does, leaves the kernel without one to tell: it is then the
// one that address and netmask make.
static bool SubnetEnds(const char *device, in_addr *source, in_addr *destination) {
    if (COM_GetNetInfo(NETINFO_BROADCAST_RAW, device, destination) == -1 ||
        COM_GetNetInfo(NETINFO_IP_RAW, device, source) == -1) {
        return false;
    }
    in_addr netmask;
    if (destination->s_addr == INADDR_ANY &&
        COM_GetNetInfo(NETINFO_NETMASK_RAW, device, &netmask) == 0) {
        destination->s_addr = source->s_addr | ~netmask.s_addr;
    }
    return true;
}

// The second copy, for units in the same subnet whose stacks drop what comes from 0.0.0.0.
static void SendToSubnet(int sock, const sockaddr_ll &link, const char *device, uint16_t port,
                         const Payload &payload) {
    in_addr source;
    in_addr destination;
    if (!SubnetEnds(device, &source, &destination)) {
        return;
    }
    if (!Datagram(source, destination, port, payload).Send(sock, link, 0)) {
        TQ_LOG_UNNAMED("sendto(%s) error : %s\n", device, strerror(errno));
    }
}

// Opens the packet socket unless it is open. Protocol 0 receives nothing: one that listens would
// have to be unhooked before bind() can tie it to an interface, for which the kernel waits
// milliseconds.
static bool OpenPacketSocket(UniqueFd *sock) {
    if (*sock) {
        return true;
    }
    UniqueFd opened(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!opened) {
        TQ_LOG_FOR(kSenderOrigin, "socket(SOCK_DGRAM) failed : %s\n", strerror(errno));
        return false;
    }
    const int on = 1;
    if (setsockopt(opened.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
        TQ_LOG_FOR(kSenderOrigin, "setsockopt(SOL_SOCKET(%d), SO_BROADCAST(%d)) error : %s\n",
                   SOL_SOCKET, SO_BROADCAST, strerror(errno));
        return false;
    }
    *sock = static_cast<UniqueFd &&>(opened);
    return true;
}

static void BindToInterface(int sock, sockaddr_ll link, const char *device) {
    link.sll_protocol = 0;
    if (bind(sock, reinterpret_cast<const sockaddr *>(&link), sizeof link) == -1) {
        TQ_LOG_UNNAMED("bind([%d][%s]) failed! : %s\n", link.sll_ifindex, device ? device : "",
                       strerror(errno));
    }
}

int BroadcastThrough(UniqueFd *sock, const char *device, uint16_t port, const void *data,
                     int size) {
    if (size < 0 || size > kBroadcastPayloadSize) {
        TQ_LOG_UNNAMED("data_sz[%d] exceed limit[%d]!\n", size, kBroadcastPayloadSize);
        return -1;
    }
    if (!OpenPacketSocket(sock)) {
        return -1;
    }
    const Payload payload{data, static_cast<size_t>(size)};
    const sockaddr_ll link = Station(InterfaceIndex(sock->get(), device), kEveryStation);
    BindToInterface(sock->get(), link, device);
    const Datagram datagram({INADDR_ANY}, {INADDR_BROADCAST}, port, payload);
    if (!datagram.Send(sock->get(), link, MSG_NOSIGNAL)) {
        if (device) {
            TQ_LOG_UNNAMED("sendto(%s:%d) error : %s\n", device, port, strerror(errno));
        }
        return -1;
    }
    if (device) {
        SendToSubnet(sock->get(), link, device, port, payload);
    }
    return 0;
}

int SendToStation(int sock, int interface, const uint8_t *mac, uint16_t port, const void *data,
                  size_t size) {
    if (size > kBroadcastPayloadSize) {
        errno = EMSGSIZE;
        return -1;
    }
    const Datagram datagram({INADDR_ANY}, {INADDR_BROADCAST}, port, {data, size});
    return datagram.Send(sock, Station(interface, mac), MSG_NOSIGNAL) ? 0 : -1;
}

int COM_SendUDPBroadcast(const char *device, uint16_t port, const void *data, int size) {
    UniqueFd sock;
    return BroadcastThrough(&sock, device, port, data, size);
}
