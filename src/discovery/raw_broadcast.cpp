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
#include <utility>

#include "common/owners.h"
#include "common/text.h"
#include "common/wire.h"
#include "frame/message.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "COMMON";

static constexpr MessageOrigin kSenderOrigin = TQ_ORIGIN("COM_SendUDPBroadcast");

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

// Opens the packet socket unless it is open. Protocol 0 receives nothing: one that listens would
// have to be unhooked before bind() can tie it to an interface, for which the kernel waits
// milliseconds; and no failure of an interface stays behind in it.
static bool OpenPacketSocket(UniqueFd *sock) {
    if (*sock) {
        return true;
    }
    UniqueFd opened(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!opened) {
        TQ_LOG_FOR(kSenderOrigin, "socket(SOCK_DGRAM) failed : %m\n");
        return false;
    }
    const int on = 1;
    if (setsockopt(opened.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
        TQ_LOG_FOR(kSenderOrigin, "setsockopt(SOL_SOCKET(%d), SO_BROADCAST(%d)) error : %m\n",
                   SOL_SOCKET, SO_BROADCAST);
        return false;
    }
    *sock = std::move(opened);
    return true;
}

namespace {

// The datagrams of one broadcast on their way through a packet socket that may outlive it.
class Broadcast {
  public:
    Broadcast(UniqueFd *sock, const char *device, uint16_t port, const Payload &payload)
        : sock_(sock),
          device_(device),
          port_(port),
          payload_(payload),
          link_(Station(InterfaceIndex(sock->get(), device), kEveryStation)) {
        Bind();
    }

    // Returns false with errno set when the datagram could not be handed over at once.
    bool Send(in_addr source, in_addr destination) {
        const Datagram datagram(source, destination, port_, payload_);
        return datagram.Send(sock_->get(), link_, kFlags) ||
               (errno == EAGAIN && Renew() && datagram.Send(sock_->get(), link_, kFlags));
    }

  private:
    static constexpr int kFlags = MSG_NOSIGNAL | MSG_DONTWAIT;

    // What an interface that is stuck has not sent yet fills a socket, for all other interfaces
    // too. A full one is closed behind the datagrams: that takes the kernel milliseconds.
    bool Renew() {
        full_ = std::move(*sock_);
        if (!OpenPacketSocket(sock_)) {
            return false;
        }
        Bind();
        return true;
    }

    void Bind() const {
        sockaddr_ll link = link_;
        link.sll_protocol = 0;
        if (bind(sock_->get(), reinterpret_cast<const sockaddr *>(&link), sizeof link) == -1) {
            TQ_LOG_UNNAMED("bind([%d][%s]) failed! : %m\n", link.sll_ifindex,
                           device_ ? device_ : "");
        }
    }

    UniqueFd *sock_;
    const char *device_;
    uint16_t port_;
    Payload payload_;
    sockaddr_ll link_;
    UniqueFd full_;
};

}  // namespace

// The ends of a datagram inside the subnet of an interface. An address that was set without a
// broadcast address, as BusyBox's ifup does, leaves the kernel without one to tell: it is then the
// one that address and netmask make.
static bool SubnetEnds(unit::FactSource &facts, const char *device, in_addr *source,
                       in_addr *destination) {
    if (facts.Address(NETINFO_BROADCAST_RAW, device, destination) == -1 ||
        facts.Address(NETINFO_IP_RAW, device, source) == -1) {
        return false;
    }
    in_addr netmask;
    if (destination->s_addr == INADDR_ANY &&
        facts.Address(NETINFO_NETMASK_RAW, device, &netmask) == 0) {
        destination->s_addr = source->s_addr | ~netmask.s_addr;
    }
    return true;
}

int discovery::BroadcastThrough(UniqueFd *sock, unit::FactSource &facts, const char *device,
                                uint16_t port, std::string_view payload) {
    if (!OpenPacketSocket(sock)) {
        return -1;
    }
    Broadcast broadcast(sock, device, port, {payload.data(), payload.size()});
    if (!broadcast.Send({INADDR_ANY}, {INADDR_BROADCAST})) {
        if (device) {
            TQ_LOG_UNNAMED("sendto(%s:%d) error : %m\n", device, port);
        }
        return -1;
    }
    // The second copy, for units in the same subnet whose stacks drop what comes from 0.0.0.0.
    in_addr source;
    in_addr destination;
    if (device && SubnetEnds(facts, device, &source, &destination) &&
        !broadcast.Send(source, destination)) {
        TQ_LOG_UNNAMED("sendto(%s) error : %m\n", device);
    }
    return 0;
}

int discovery::SendToStation(int sock, int interface, const uint8_t *mac, uint16_t port,
                             const void *data, size_t size) {
    if (size > kBroadcastPayloadSize) {
        errno = EMSGSIZE;
        return -1;
    }
    const Datagram datagram({INADDR_ANY}, {INADDR_BROADCAST}, port, {data, size});
    return datagram.Send(sock, Station(interface, mac), MSG_NOSIGNAL) ? 0 : -1;
}

int COM_SendUDPBroadcast(const char *device, uint16_t port, const void *data, int size) {
    if (size < 0 || size > kBroadcastPayloadSize) {
        TQ_LOG_UNNAMED("data_sz[%d] exceed limit[%d]!\n", size, kBroadcastPayloadSize);
        return -1;
    }
    UniqueFd sock;
    unit::FactSource facts;
    return discovery::BroadcastThrough(
        &sock, facts, device, port, {static_cast<const char *>(data), static_cast<size_t>(size)});
}
