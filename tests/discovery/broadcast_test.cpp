// Broadcasts through a socket that is kept, beside ones that open, use and close their own.
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <vector>

#include "common/owners.h"
#include "discovery/raw_broadcast.h"
#include "support/files.h"
#include "unit/net_info.h"

static constexpr uint16_t kPort = 7000;

// One broadcast in the plainest steps, with a listening packet socket of its own.
static int SendPlainly(const char *device, const std::string &data) {
    const UniqueFd sock(socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP)));
    const int on = 1;
    setsockopt(sock.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_IP);
    link.sll_ifindex = device ? static_cast<int>(if_nametoindex(device)) : 0;
    link.sll_halen = ETH_ALEN;
    memset(link.sll_addr, 0xFF, ETH_ALEN);
    const sockaddr *to = reinterpret_cast<const sockaddr *>(&link);
    if (bind(sock.get(), to, sizeof link) == -1) {
        printf("COMMON,0: bind([%d][%s]) failed! : %s\n", link.sll_ifindex, device,
               strerror(errno));
    }
    const auto send = [&](in_addr_t source, in_addr_t destination) {
        const auto put = [](std::string *out, uint32_t value, int bytes) {
            for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
                out->push_back(static_cast<char>(value >> shift));
            }
        };
        const uint32_t size = static_cast<uint32_t>(data.size());
        std::string addresses, ports, header;
        put(&addresses, ntohl(source), 4);
        put(&addresses, ntohl(destination), 4);
        put(&ports, kPort << 16 | kPort, 4);
        put(&ports, size + 8, 2);
        std::string pseudo = addresses;
        put(&pseudo, 17, 2);
        put(&pseudo, size + 8, 2);
        pseudo += ports + std::string(2, '\0') + data;
        put(&ports, COM_CalRawPkgChecksum(pseudo.data(), pseudo.size()), 2);
        put(&header, 0x45000000 | (size + 28), 4);
        put(&header, 0, 4);
        put(&header, 64 << 8 | 17, 2);
        const std::string bare = header + std::string(2, '\0') + addresses;
        put(&header, COM_CalRawPkgChecksum(bare.data(), bare.size()), 2);
        header += addresses + ports + data;
        return sendto(sock.get(), header.data(), header.size(), 0, to, sizeof link) != -1;
    };
    if (!send(INADDR_ANY, INADDR_BROADCAST)) {
        if (device) {
            printf("COMMON,0: sendto(%s:%d) error : %s\n", device, kPort, strerror(errno));
        }
        return -1;
    }
    in_addr_t source, destination;
    if (device && COM_GetNetInfo(NETINFO_BROADCAST_RAW, device, &destination) == 0 &&
        COM_GetNetInfo(NETINFO_IP_RAW, device, &source) == 0 && !send(source, destination)) {
        printf("COMMON,0: sendto(%s) error : %s\n", device, strerror(errno));
    }
    return 0;
}

// What is sent on eth0, as lan0 at the other end of its cable gets it.
class Cable {
  public:
    Cable() : sock_(socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP))) {
        sockaddr_ll link{};
        link.sll_family = AF_PACKET;
        link.sll_protocol = htons(ETH_P_IP);
        link.sll_ifindex = static_cast<int>(if_nametoindex("lan0"));
        bind(sock_.get(), reinterpret_cast<const sockaddr *>(&link), sizeof link);
    }
    void Read(int patience) {
        pollfd wanted{sock_.get(), POLLIN, 0};
        while (poll(&wanted, 1, patience) == 1) {
            char frame[2048];
            const ssize_t size = recv(sock_.get(), frame, sizeof frame, MSG_TRUNC);
            if (size <= 0) {
                return;
            }
            frames.emplace_back(frame, static_cast<size_t>(size));
        }
    }
    std::vector<std::string> frames;

  private:
    UniqueFd sock_;
};

struct Seen {
    std::vector<int> results;
    std::string said;
    std::vector<std::string> frames;
};

static Seen SendAll(const std::function<int(const std::string &)> &send) {
    static constexpr size_t kSizes[] = {0, 1, 39, 40, 41, 111, 1472, 1473, 1500};
    Seen seen;
    Cable cable;
    seen.said = OutputOf([&] {
        for (const size_t size : kSizes) {
            seen.results.push_back(send(std::string(size, static_cast<char>('a' + size % 26))));
            cable.Read(0);
        }
    });
    cable.Read(100);
    seen.said = Shorten(seen.said);
    seen.frames = cable.frames;
    return seen;
}

TEST(Broadcast, ThroughAKeptSocketIsWhatOneThroughAFreshSocketIs) {
    static constexpr char kMadeAnew[] =
        "ip link add eth0 address 02:00:5e:00:53:01 type veth peer name lan0 &&"
        "ip address add 192.168.1.20/24 broadcast 192.168.1.255 dev eth0 && ip link set lan0 up &&"
        "ip link set eth0 up";
    const struct {
        const char *name, *change, *device;
        size_t frames;
    } kCases[] = {
        {"at first", "true", "eth0", 14},
        {"no such interface", "true", "eth9", 0},
        {"none named", "true", nullptr, 0},
        {"after a failure", "true", "eth0", 14},
        {"down", "ip link set eth0 down", "eth0", 0},
        {"renamed", "ip link set eth0 name eth8", "eth0", 0},
        {"back, and up", "ip link set eth8 name eth0 && ip link set eth0 up", "eth0", 14},
        {"deleted", "ip link del eth0", "eth0", 0},
        {"made anew", kMadeAnew, "eth0", 14},
        {"MTU 68", "ip link set eth0 mtu 68", "eth0", 8},
        {"MTU 9000", "ip link set eth0 mtu 9000 && ip link set lan0 mtu 9000", "eth0", 18},
        {"without an address", "ip address flush dev eth0", "eth0", 9},
        {"the loopback", "true", "lo", 0},
        {"as at first", "ip link del eth0; true", "eth0", 0},
        {"as at first", kMadeAnew, "eth0", 14},
    };
    UniqueFd kept;
    const UniqueFd lent(socket(AF_INET, SOCK_DGRAM, 0));
    for (const auto &row : kCases) {
        Shell(row.change);
        const Seen fresh =
            SendAll([&](const std::string &data) { return SendPlainly(row.device, data); });
        const Seen through = SendAll([&](const std::string &data) {
            unit::FactSource facts(lent.get());
            return discovery::BroadcastThrough(&kept, facts, row.device, kPort, data);
        });
        EXPECT_EQ(through.results, fresh.results) << row.name;
        EXPECT_EQ(through.said, fresh.said) << row.name;
        EXPECT_TRUE(through.frames == fresh.frames) << row.name;
        EXPECT_EQ(through.frames.size(), row.frames) << row.name;
    }
}

// An interface that sends nothing any more keeps its datagrams, and with them the socket's room.
TEST(Broadcast, AStuckInterfaceSilencesNoOther) {
    Shell(
        "ip link add eth1 type veth peer name lan1 && ip link set lan1 up && ip link set eth1 up");
    if (system("tc qdisc add dev eth1 root tbf rate 8bit burst 2000 limit 9999999 2>&1") != 0) {
        GTEST_SKIP() << "nothing to hold an interface with";
    }
    UniqueFd kept;
    unit::FactSource facts;
    const std::string data(111, 'x');
    Cable cable;
    for (int i = 0; i < 400; ++i) {
        EXPECT_EQ(discovery::BroadcastThrough(&kept, facts, "eth1", kPort, data), 0) << i;
        EXPECT_EQ(discovery::BroadcastThrough(&kept, facts, "eth0", kPort, data), 0) << i;
        cable.Read(0);
    }
    cable.Read(100);
    EXPECT_EQ(cable.frames.size(), 800u);
    Shell("ip link del eth1");
}
