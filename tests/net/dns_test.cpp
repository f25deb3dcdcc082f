// The resolver's queries and replies, byte by byte and with a real name server.
#include "net/dns.h"

#include <bit>

#include "support/peers.h"

static const std::string kHeader = "\xA9\xFA\1\0\0\1\0\0\0\0\0\0"s, kTail = "\0\0\1\0\1"s;

// The addresses of the first entries, "-" for one that isn't valid.
static std::string Listed(const DnsAddrEntry *entries, int count) {
    std::string list;
    for (const DnsAddrEntry *entry = entries; entry < entries + count; ++entry) {
        EXPECT_EQ(entry->valid, entry->kind);
        list += (entry->valid ? inet_ntoa(in_addr{entry->addr}) : "-") + " "s;
    }
    return list;
}

static std::string Reply(char count, const std::string &answers) {
    return "\xA9\xFA\x81\x80\0\1\0"s + count + "\0\0\0\0\2ab\3cde"s + kTail + answers;
}

static std::string Answer(const std::string &address, char timeToLive = 0) {
    return "\xC0\x0C\0\1\0\1\0\0\0"s + timeToLive + "\0\4"s + address;
}

TEST(Dns, QueryPacket) {
    const std::string label(300, 'x');
    const std::pair<std::string, std::string> cases[] = {{"x@ab.cde", "\2ab\3cde"},
                                                         {"a.b.", "\1a\2b."},
                                                         {"a..b", "\1a\0\1b"s},
                                                         {"x.y@", "\0"s},
                                                         {label + ".y", "\x2C" + label + "\1y"}};
    std::vector<unsigned char> packet(kDnsQuerySize);
    for (const auto &[name, labels] : cases) {
        const int length = DNS_CreateOutPacket(name.c_str(), packet.data(), 1);
        EXPECT_EQ(std::string(packet.data(), packet.data() + length), kHeader + labels + kTail);
    }
    EXPECT_EQ(DNS_CreateOutPacket(std::string(1006, '.').c_str(), packet.data(), 1), 1024);
    EXPECT_EQ(DNS_CreateOutPacket(std::string(1007, '.').c_str(), packet.data(), 1), -1);
}

TEST(Dns, ScansReplies) {
    const std::string one = Answer("\1\2\3\4"), two = one + Answer("\5\6\7\x8");
    const std::string list = "1.2.3.4 5.6.7.8 ";
    const std::pair<std::string, std::string> cases[] = {
        {Reply(3, two), list + "- "},
        {Reply(12, two + two + two + two + two + two), list + list + list + list + list},
        {Reply(0, one), ""},
        // A zero address isn't passed over; a 4 in a time to live is taken for the length.
        {Reply(2, Answer("\0\0\0\0"s) + one), "- - "},
        {Reply(1, Answer("\1\2\3\4", 4)), "0.4.1.2 "},
        // An address that the end cuts off; no length of 4; too short; just long enough.
        {Reply(1, one.substr(0, 14)), "1.2.0.0 "},
        {Reply(1, one.substr(0, 8)), ""},
        {Reply(1, "").substr(0, 17), ""},
        {Reply(1, "").substr(0, 15) + "\0\4\x7F"s, "127.0.0.0 "}};
    const auto scan = [](const std::string &reply, DnsAddrEntry *entries) {
        const std::vector<unsigned char> bytes(reply.begin(), reply.end());
        return DNS_ParserAPacket(bytes.data(), static_cast<int>(bytes.size()), entries);
    };
    for (const auto &[reply, addresses] : cases) {
        DnsAddrEntry entries[kDnsMaxAddresses] = {}, others[kDnsMaxAddresses] = {};
        EXPECT_EQ(scan(reply, entries), addresses.empty() ? -1 : 0);
        EXPECT_EQ(Listed(entries, addresses.empty() ? 0 : std::min<int>(reply[7], 10)), addresses);
        for (size_t size = 0; size < reply.size(); ++size) {
            scan(reply.substr(0, size), others);  // never read behind its end
        }
    }
}

TEST(Dns, AsksAtMostThreeTimes) {
    const std::string good = Reply(1, Answer("\1\2\3\4")), none = Reply(0, "");
    const std::string refusal = "\xA9\xFA\x81\x83"s + none.substr(4);
    const std::string mirrored = "\x83\x81\xFA\xA9"s + none.substr(4);
    constexpr bool kLittle = std::endian::native == std::endian::little;
    const std::tuple<std::vector<std::string>, int, int> cases[] = {
        {{good}, 0, 1},
        {{none, "\xA9", good}, 0, 3},
        {{"", good}, 0, 2},  // none in time
        {{none, none, none, good}, -1, 3},
        {{refusal, refusal, refusal}, -1, kLittle ? 1 : 3},
        {{mirrored, mirrored, mirrored}, -1, kLittle ? 3 : 1}};
    const BoundSocket client(SOCK_DGRAM);
    DnsAddrEntry entries[kDnsMaxAddresses] = {};
    for (const auto &[answers, result, queries] : cases) {
        const BoundSocket server(SOCK_DGRAM);
        int asked = 0;
        std::thread thread([&, &script = answers] {
            char query[2048];
            for (ssize_t size; (size = recv(server.fd.get(), query, sizeof query, 0)) > 0;) {
                EXPECT_EQ(std::string(query, size), kHeader + "\2ab\3cde" + kTail);
                const std::string answer = asked < std::ssize(script) ? script[asked] : "";
                ++asked;
                sendto(answer.empty() ? -1 : server.fd.get(), answer.data(), answer.size(), 0,
                       AsSockaddr(client.address), sizeof client.address);
            }
        });
        EXPECT_EQ(DNS_SendAQuery(client.fd.get(), &server.address, "ab.cde", entries, 1), result);
        sendto(client.fd.get(), "", 0, 0, AsSockaddr(server.address), sizeof server.address);
        thread.join();
        EXPECT_EQ(asked, queries);
    }
    EXPECT_EQ(Listed(entries, 2), "1.2.3.4 - ");
    const sockaddr_in broadcast = InternetAddress(INADDR_BROADCAST, 53);  // not allowed
    EXPECT_EQ(DNS_SendAQuery(client.fd.get(), &broadcast, "ab.cde", entries, 1), -2);
}

TEST(Dns, NameServersOfTheFile) {
    const std::pair<const char *, const char *> cases[] = {
        {"nameserver 1.1.1.1\r\nnameserver  2.2.2.2 \nnameservers 3.3.3.3 x\nnameserver 4.4.4.4\n"
         "nameserver 5.5.5.5\nnameserver 6.6.6.6\n",
         "1.1.1.1 2.2.2.2 3.3.3.3 4.4.4.4"},
        {"nameserver\t1.1.1.1\n nameserver 2.2.2.2\nNameserver 3.3.3.3\nnameserver\n"
         "nameserver 1234567890123456\n",
         "123456789012345   "}};
    for (const auto &[text, servers] : cases) {
        WriteFile("/etc/resolv.conf", text);
        char found[4][kDnsNameServerSize] = {};
        DNS_GetNameServer(found[0], found[1], found[2], found[3]);
        EXPECT_EQ(found[0] + " "s + found[1] + " " + found[2] + " " + found[3], servers);
    }
}

TEST(Dns, AsksARealServer) {
    ServeNames();
    const struct {
        std::string servers;
        const char *name, *addresses, *message;
    } cases[] = {
        {"127.0.0.1", "user@one.test", "10.0.0.1 - ", ""},
        {"127.0.0.1", "nvr.test", "127.0.0.1 127.0.0.77 ", ""},
        {"127.0.0.1", "alias.test", "10.0.0.1 - ", ""},
        {"127.0.0.1", "absent.test", "", "DNS_GetAviaNameServer(): A record not found!\n"},
        {"127.0.0.9\nnameserver 127.0.0.1", "one.test", "10.0.0.1 - ", "[2] select() timeout\n"},
        {"192.168.1.255\nnameserver 127.0.0.1", "one.test", "10.0.0.1 - ",
         "sendto() error : -1/26"},
        {"", "127.0.0.7", "127.0.0.7 - ", ""},
        {"x.y", "one.test", "", "DNS_GetAviaNameServer(): inet_addr(x.y) error : "},
        {"", "one.test", "", "DNS_GetA(): no nameserver found\n"},
        {"", "localhost", "", "DNS_GetA(): invalid pDomainName [localhost]\n"},
        {"", nullptr, "", "DNS_GetA(): pDomainName is NULL!\n"}};
    for (const auto &row : cases) {
        WriteFile("/etc/resolv.conf", "nameserver " + row.servers + "\n");
        DnsAddrEntry entries[kDnsMaxAddresses] = {};
        const Outcome got = OBSERVE(DNS_GetA(row.name, entries, 1));
        EXPECT_SAYS(got.messages, row.message);
        if (entries[1].valid && ntohl(entries[1].addr) < ntohl(entries[0].addr)) {
            std::swap(entries[0], entries[1]);  // a server hands several out in turn
        }
        EXPECT_EQ(got.result == 0 ? Listed(entries, 2) : "", row.addresses);
    }
    unlink("/etc/resolv.conf");
    const Outcome got = OBSERVE(DNS_GetA("one.test", std::array<DnsAddrEntry, 10>().data(), 1));
    EXPECT_SAYS(got.messages, "fopen(/etc/resolv.conf) error : No such file or directory\n");
    EXPECT_EQ(got.result, -1);
}

// The usual wait for the first of the questions.
static testing::Environment *const kSilentServer = testing::AddGlobalTestEnvironment(new Beside([] {
    const BoundSocket server(SOCK_DGRAM), client(SOCK_DGRAM);
    const time_t start = time(nullptr);
    DnsAddrEntry entries[kDnsMaxAddresses] = {};
    std::thread asks(DNS_SendAQuery, client.fd.get(), &server.address, "a.b", entries, -1);
    char query[64];
    recv(server.fd.get(), query, sizeof query, 0);
    recv(server.fd.get(), query, sizeof query, 0);
    EXPECT_NEAR(time(nullptr) - start, 20.5, 0.6);
    const std::string reply = Reply(1, Answer("\1\2\3\4"));
    sendto(server.fd.get(), reply.data(), reply.size(), 0, AsSockaddr(client.address),
           sizeof client.address);
    asks.join();
}));
