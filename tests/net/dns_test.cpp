#include "net/dns.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>

#include "net/peers.h"

using std::string_literals::operator""s;

static const std::string kHeader = "\xA9\xFA\1\0\0\1\0\0\0\0\0\0"s;

static std::string Address(uint32_t address) {
    return inet_ntoa(in_addr{address});
}

// The valid addresses of a list, "-" for an entry that isn't.
static std::string Listed(const DnsAddrEntry (&entries)[kDnsMaxAddresses], int count) {
    std::string list;
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(entries[i].valid, entries[i].kind);
        list += (entries[i].valid ? Address(entries[i].addr) : "-") + " ";
    }
    return list;
}

TEST(Dns, QueryPacket) {
    const std::string tail = "\0\0\1\0\1"s, longLabel(300, 'x');
    const struct {
        std::string name, labels;
    } cases[] = {{"ab.cde", "\2ab\3cde"},
                 {"x@ab.cde", "\2ab\3cde"},
                 {"a.b.", "\1a\2b."},
                 {"a..b", "\1a\0\1b"s},
                 {".a", "\0\1a"s},
                 {".", "\1."},
                 {"x.y@", "\0"s},
                 {longLabel + ".y", "\x2C" + longLabel + "\1y"},
                 {std::string(500, 'n'), "\xF4" + std::string(500, 'n')}};
    for (const auto &c : cases) {
        unsigned char packet[kDnsQuerySize] = {};
        const std::string wanted = kHeader + c.labels + tail;
        ASSERT_EQ(DNS_CreateOutPacket(c.name.c_str(), packet, 1), wanted.size()) << c.name;
        EXPECT_EQ(std::string(reinterpret_cast<char *>(packet), wanted.size()), wanted) << c.name;
    }
    const HeapBlock<unsigned char> packet = ZeroedBlock<unsigned char>(kDnsQuerySize);
    EXPECT_EQ(DNS_CreateOutPacket(std::string(1006, '.').c_str(), packet.get(), 1), 1024);
    testing::internal::CaptureStdout();
    EXPECT_EQ(DNS_CreateOutPacket(std::string(1007, 'n').c_str(), packet.get(), 1), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "DNS_CreateOutPacket(): buffer overflow : (len, limit) = (1025, 1024)\n"),
              std::string::npos);
}

// A reply that says it has `count` answers; they begin at offset 24.
static std::string Reply(int count, const std::string &answers) {
    return "\xA9\xFA\x81\x80\0\1\0"s + static_cast<char>(count) + "\0\0\0\0\2ab\3cde\0\0\1\0\1"s +
           answers;
}

static std::string Answer(const std::string &address) {
    return "\xC0\x0C\0\1\0\1\0\0\x0E\x10\0\4"s + address;
}

TEST(Dns, ScansReplies) {
    std::string twelve, wantedTwelve;
    for (int i = 1; i <= 12; ++i) {
        twelve += Answer("\x0A\0\0"s + static_cast<char>(i));
        wantedTwelve += i <= 10 ? "10.0.0." + std::to_string(i) + " " : "";
    }
    const std::string one = Answer("\x0A\0\0\1"s);
    const struct {
        const char *what;
        std::string reply;
        int result;
        std::string addresses;
    } cases[] = {
        {"one", Reply(1, one), 0, "10.0.0.1 "},
        {"two", Reply(2, one + Answer("\1\2\3\4")), 0, "10.0.0.1 1.2.3.4 "},
        {"twelve", Reply(12, twelve), 0, wantedTwelve},
        {"fewer than announced", Reply(3, one), 0, "10.0.0.1 - - "},
        {"no answers", Reply(0, one), -1, ""},
        {"a zero address stays where it is", Reply(2, Answer("\0\0\0\0"s) + one), 0, "- - "},
        {"a 4 in the time to live shifts", Reply(1, "\xC0\x0C\0\1\0\1\0\0\0\4\0\4\x0A\0\0\1"s), 0,
         "0.4.10.0 "},
        {"address cut off by the end", Reply(1, one.substr(0, 14)), 0, "10.0.0.0 "},
        {"no data length of 4", Reply(1, "\xC0\x0C\0\1\0\1"s), -1, ""},
        {"17 bytes", Reply(1, "").substr(0, 17), -1, ""},
        {"18 bytes", kHeader.substr(0, 7) + "\1\0\0\0\0\0\0\0\0\4\x7F"s, 0, "127.0.0.0 "}};
    for (const auto &c : cases) {
        DnsAddrEntry entries[kDnsMaxAddresses] = {};
        const HeapBlock<char> reply = Exactly(c.reply);
        EXPECT_EQ(DNS_ParserAPacket(reinterpret_cast<unsigned char *>(reply.get()),
                                    static_cast<int>(c.reply.size()), entries),
                  c.result)
            << c.what;
        const int count = std::min<int>(c.reply[7], kDnsMaxAddresses);
        EXPECT_EQ(Listed(entries, c.result == 0 ? count : 0), c.addresses) << c.what;
    }
    std::mt19937 random(1);
    for (int i = 0; i < 5000; ++i) {
        std::string reply(12 + random() % 1012, '\0');
        for (char &byte : reply) {
            byte = static_cast<char>(random() % 4 ? random() : random() % 5);
        }
        DnsAddrEntry entries[kDnsMaxAddresses] = {};
        const HeapBlock<char> block = Exactly(reply);
        DNS_ParserAPacket(reinterpret_cast<unsigned char *>(block.get()),
                          static_cast<int>(reply.size()), entries);
    }
}

TEST(Dns, AsksAtMostThreeTimes) {
    // What a scripted server answers to each query, nothing for an empty text.
    const std::string good = Reply(1, Answer("\x0A\0\0\1"s)), none = Reply(0, "");
    const std::string refusal = "\xA9\xFA\x81\x83"s + none.substr(4);
    const std::string mirrored = "\x83\x81\xFA\xA9"s + none.substr(4);
    constexpr bool little = std::endian::native == std::endian::little;
    const struct {
        const char *what;
        std::vector<std::string> answers;
        int result, queries;
    } cases[] = {{"at once", {good}, 0, 1},
                 {"after an empty and a short one", {none, "\xA9", good}, 0, 3},
                 {"after silence", {"", good}, 0, 2},
                 {"never", {none, none, none}, -1, 3},
                 {"no such name", {refusal, refusal, refusal}, -1, little ? 1 : 3},
                 {"the same read backwards", {mirrored, mirrored, mirrored}, -1, little ? 3 : 1}};
    for (const auto &c : cases) {
        BoundSocket server(SOCK_DGRAM), client(SOCK_DGRAM);
        int queries = 0;
        std::thread thread([&] {
            pollfd wanted{server.fd.get(), POLLIN, 0};
            while (queries < static_cast<int>(c.answers.size()) && poll(&wanted, 1, 1500) == 1) {
                char query[2048];
                sockaddr_in from;
                socklen_t size = sizeof from;
                const ssize_t length = recvfrom(server.fd.get(), query, sizeof query, 0,
                                                reinterpret_cast<sockaddr *>(&from), &size);
                EXPECT_EQ(std::string(query, length), kHeader + "\2ab\3cde\0\0\1\0\1"s);
                const std::string &answer = c.answers[queries++];
                if (!answer.empty()) {
                    sendto(server.fd.get(), answer.data(), answer.size(), 0, AsSockaddr(from),
                           size);
                }
            }
        });
        DnsAddrEntry entries[kDnsMaxAddresses] = {};
        EXPECT_EQ(DNS_SendAQuery(client.fd.get(), &server.address, "ab.cde", entries, 1), c.result)
            << c.what;
        thread.join();
        EXPECT_EQ(queries, c.queries) << c.what;
        EXPECT_EQ(Listed(entries, 1), c.result == 0 ? "10.0.0.1 " : "- ") << c.what;
    }
    const BoundSocket client(SOCK_DGRAM);
    const sockaddr_in broadcast = InternetAddress(INADDR_BROADCAST, 53);
    DnsAddrEntry entries[kDnsMaxAddresses] = {};
    EXPECT_EQ(DNS_SendAQuery(client.fd.get(), &broadcast, "ab.cde", entries, 1), -2);
}

TEST(Dns, NameServersOfTheFile) {
    const struct {
        const char *text, *servers;
    } cases[] = {
        {"nameserver 1.1.1.1\r\nnameserver  2.2.2.2 \nnameserver 3.3.3.3 x\nnameserver 4.4.4.4\n"
         "nameserver 5.5.5.5\nnameserver 6.6.6.6\n",
         "1.1.1.1 2.2.2.2 3.3.3.3 4.4.4.4 "},
        {"nameserver\t1.1.1.1\n nameserver 2.2.2.2\nNameserver 3.3.3.3\nnameserver\n", ""},
        {"nameservers 9.9.9.9\nnameserver 1234567890123456\nsearch nameserver 1.1.1.1\n",
         "9.9.9.9 123456789012345 "}};
    for (const auto &c : cases) {
        WriteFile("/etc/resolv.conf", c.text);
        char servers[4][kDnsNameServerSize] = {};
        const int count = DNS_GetNameServer(servers[0], servers[1], servers[2], servers[3]);
        std::string list;
        for (int i = 0; i < count; ++i) {
            list += servers[i] + " "s;
        }
        EXPECT_EQ(list, c.servers);
    }
}

TEST(Dns, AsksARealServer) {
    const Daemon dnsmasq({"/usr/sbin/dnsmasq", "-k", "-C", "/dev/null", "-u", "root", "-R", "-h",
                          "--pid-file=", "-a", "127.0.0.1", "-z", "--host-record=one.test,10.0.0.1",
                          "--host-record=many.test,10.0.0.2", "--host-record=many.test,10.0.0.3",
                          "--cname=alias.test,one.test", "--local=/test/"});
    ASSERT_TRUE(WaitForPort(53));
    const struct {
        const char *resolver, *name;
        int result;
        const char *addresses, *message;
    } cases[] = {
        {"nameserver 127.0.0.1\n", "one.test", 0, "10.0.0.1 - ", ""},
        {"nameserver 127.0.0.1\n", "user@one.test", 0, "10.0.0.1 - ", ""},
        {"nameserver 127.0.0.1\n", "many.test", 0, "10.0.0.2 10.0.0.3 ", ""},
        {"nameserver 127.0.0.1\n", "alias.test", 0, "10.0.0.1 - ", ""},
        {"nameserver 127.0.0.1\n", "absent.test", -1, "- - ", "A record not found!\n"},
        {"nameserver 127.0.0.9\nnameserver 127.0.0.1\n", "one.test", 0, "10.0.0.1 - ",
         "DNS_SendAQuery(): [2] select() timeout\n"},
        {"nameserver 127.0.0.1\n", "127.0.0.7", 0, "127.0.0.7 - ", ""},
        {"nameserver x.y\n", "one.test", -1, "- - ", "DNS_GetAviaNameServer(): inet_addr(x.y) err"},
        {"", "one.test", -1, "- - ", "DNS_GetA(): no nameserver found\n"},
        {"", "localhost", -1, "- - ", "DNS_GetA(): invalid pDomainName [localhost]\n"},
        {"", nullptr, -1, "- - ", "DNS_GetA(): pDomainName is NULL!\n"},
    };
    for (const auto &c : cases) {
        WriteFile("/etc/resolv.conf", c.resolver);
        DnsAddrEntry entries[kDnsMaxAddresses] = {};
        testing::internal::CaptureStdout();
        EXPECT_EQ(DNS_GetA(c.name, entries, 1), c.result);
        const std::string messages = testing::internal::GetCapturedStdout();
        EXPECT_NE(messages.find(c.message), std::string::npos) << messages;
        if (entries[0].valid && entries[1].valid &&
            ntohl(entries[0].addr) > ntohl(entries[1].addr)) {
            std::swap(entries[0], entries[1]);  // a server hands several out in turn
        }
        EXPECT_EQ(Listed(entries, 2), c.addresses) << (c.name ? c.name : "null");
    }
}
