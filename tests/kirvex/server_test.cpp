// What the KIRVEX server answers, refuses, and keeps from one request to the next.
#include "kirvex/server.h"

#include <ctime>

#include "kirvex/support.h"

TEST(KirvexServer, AnswersASearchWithTheseBytes) {
    const std::string route = Bytes({0, 0, 255, 255, 255, 0, 192, 168, 1, 1}),
                      model = "QVR-7140-16T";
    const struct {
        const char *interfaces, *resolver, *port;
        std::string expected;  // from web port to DHCP byte
    } cases[] = {
        {"iface eth0 inet static\n", "nameserver 10.0.0.1\nnameserver 10.0.0.2\n", "8080\n",
         Bytes({0x90, 0x1F}) + route + Bytes({10, 0, 0, 1, 10, 0, 0, 2, 0xFF})},
        {"# ETH0: Dhcp\n", "", "", Bytes({80, 0}) + route + Bytes({0, 0, 0, 0, 0, 0, 0, 0, 1})},
        {"dhcp\n", "", "none", Bytes({0, 0}) + route + Bytes({0, 0, 0, 0, 0, 0, 0, 0, 0xFF})},
    };
    const Server server;
    for (const auto &row : cases) {
        WriteFile("/mtd1/interfaces", row.interfaces);
        WriteFile("/etc/resolv.conf", row.resolver);
        WriteFile("/etc/Port", row.port);
        std::string reply = Ask(Header(0xA1));
        ASSERT_EQ(reply.size(), 334u);
        tm utc{};
        strptime(reply.substr(315, 14).c_str(), "%Y%m%d%H%M%S", &utc);
        EXPECT_LE(labs(timegm(&utc) - time(nullptr)), 2);
        EXPECT_EQ(reply.replace(315, 14, 14, '\0'),
                  Bytes({0xEE, 0xFE, 0x12, 0x34, 0xA1, 0}) + kUnit + Bytes({0, 0, 1, 0, 0x38, 1}) +
                      Field("Orvane", 64) + Field(model, 64) + Field(model, 32) +
                      Field("1.41", 32) + Bytes({1, 0, 0, 0, 0, 0}) + kUnit.substr(0, 6) +
                      Field(model, 64) + kUnit.substr(6) + row.expected + Field("", 19));
    }
    EXPECT_EQ(ReadFile("/var/run/TQ.pid"), std::to_string(server.pid));
    Shell("rm /mtd1/interfaces");
    EXPECT_EQ(Ask(Header(0xA1)).at(314), '\xFF');
    EXPECT_SAYS(ReadFile(kServerLog), "KIRVEX_GetDHCPStatus(): fopen(/mtd1/interfaces) failed : ");
}

TEST(KirvexServer, ChecksRequestsInThisOrder) {
    const std::string zero(1, '\0'), mismatch = "local mac/ip[02:00:5E:00:53:01/192.168.1.20]\n";
    const struct {
        std::string request;
        size_t reply;
        std::string message = "";
    } cases[] = {
        {Header(0xA5), 22},
        {Header(0xA1, zero + "w"), 334},
        {Header(0xA1, "w" + zero).replace(6, 1, "x"), 334},
        {Header(0xA1) + std::string(20000, 'x'), 334},
        {Header(0xA1, "xw"), 0, "reqmode[0x7778] - receive error packet\n"},
        {Header(0xA1, "w\1"), 0, "reqmode[0x0177] - receive error packet\n"},
        {Header(0xA1).replace(0, 1, "\xEE"), 0},
        {Header(0xA1).replace(1, 1, "\xFE"), 0},
        {Header(0xA1).replace(5, 1, "\1"), 0},
        {Header(0xA0), 0},
        {Header(0xA6), 0},
        {Header(0xA5, "w" + zero), 0, "reqmode[0x0077] - receive error packet\n"},
        {Header(0xA2, zero + "w"), 0, "reqmode[0x7700] - receive error packet\n"},
        {Header(0xA2).replace(11, 1, "\2"), 0, mismatch},
        {Header(0xA4, "xx").replace(15, 1, "\2"), 0, mismatch},
    };
    const Server server;
    for (const auto &row : cases) {
        SCOPED_TRACE(testing::PrintToString(row.request.substr(0, 22)));
        WriteFile("/mtd1/interfaces", "");
        WriteFile(kServerLog, "");
        EXPECT_EQ(Ask(row.request).size(), row.reply);
        EXPECT_EQ(Shorten(ReadFile(kServerLog)), Said("KIRVEX_ParserPkt", row.message));
    }
}

TEST(KirvexServer, ReadsWhatAnEarlierRequestLeft) {
    const std::string administrator = Bytes({1, 0, 0, 0}), user = Bytes({2, 0, 0, 0});
    const Server server;
    EXPECT_EQ(Ask(Header(0xA1).substr(0, 6)).size(), 334u) << "zero until then";
    EXPECT_EQ(Ask(Header(0xA3) + Credentials({"administrator", "x"})).substr(22), administrator);
    EXPECT_EQ(Ask(Header(0xA3)).substr(22), administrator);
    EXPECT_EQ(Ask(Header(0xA3) + Credentials({"Admin"})).substr(22), user);
    const std::string endless = "YWRt" + std::string(60, ' ') + Field("aW4=", 64);
    EXPECT_EQ(Ask(Header(0xA3) + endless).substr(22), administrator) << "reads on into the next";
    EXPECT_EQ(Ask(Bytes({0xFD, 0xFD, 1, 2})).substr(0, 6), Bytes({0xEE, 0xFE, 1, 2, 0xA5, 0}));
}

TEST(KirvexServer, ServesItsInterfaceOnly) {
    const Server server;
    const UniqueFd local(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in unit = InternetAddress(htonl(INADDR_LOOPBACK), 62976);
    const std::string request = Header(0xA5);
    sendto(local.get(), request.data(), request.size(), 0, AsSockaddr(unit), sizeof unit);
    EXPECT_EQ(Ask(request).size(), 22u);
    char reply[32];
    EXPECT_EQ(recv(local.get(), reply, sizeof reply, MSG_DONTWAIT), -1);
    EXPECT_EQ(Shorten(OutputOf([] { EXPECT_EQ(TQ_Server_KIRVEX(nullptr, "eth9"), -1); })),
              Said("KIRVEX_CreateUDPRecvAnyAddrSocket", "setsockopt error: No such device\n") +
                  Said("TQ_Server_KIRVEX", "Create KIRVEX UDP Socket port 62976 failed!\n"));
}

TEST(KirvexServer, SharesItsPortAndItsAnswersWithNobody) {
    const Server server;
    const int on = 1;
    const UniqueFd listener(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in unit = InternetAddress(inet_addr("192.168.1.20"), 62976);
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(bind(listener.get(), AsSockaddr(unit), sizeof unit), -1);
    EXPECT_EQ(kill(server.pid, SIGSTOP), 0);
    std::thread end([&] { usleep(50000), kill(server.pid, SIGKILL); });
    const Server successor;
    end.join();

    // A station whose address is the others' broadcast address.
    EXPECT_EQ(Ask(Header(0xA5)).size(), 22u);
    Shell(
        "ip -n lan address flush lan0 && ip -n lan address add 192.168.1.30/25 dev lan0 &&"
        "ip -n lan address add 192.168.1.255/32 dev lan0");
    const UniqueFd sock(OnLan([] { return socket(AF_INET, SOCK_DGRAM, 0); }));
    const sockaddr_in everybody = InternetAddress(inet_addr("192.168.1.255"), 5000);
    EXPECT_EQ(bind(sock.get(), AsSockaddr(everybody), sizeof everybody), 0);
    for (const std::string &request : {Header(0xA5), Header(0xA1)}) {
        sendto(sock.get(), request.data(), request.size(), 0, AsSockaddr(unit), sizeof unit);
    }
    EXPECT_EQ(Ask(Header(0xA1)).size(), 334u);
    char reply[32];
    EXPECT_EQ(recv(sock.get(), reply, sizeof reply, MSG_DONTWAIT), -1);
}

// Replies to stations that don't exist wait for their hardware addresses, and nobody for them.
TEST(KirvexServer, AnswersBesideAFloodFromNobody) {
    const Server server;
    EXPECT_EQ(Ask(Header(0xA5)).size(), 22u);
    Shell("ip -n lan route add local 10.7.0.0/16 dev lo && ip route add 10.7.0.0/16 dev eth0");
    OnLan([] { return WriteFile("/proc/sys/net/ipv4/conf/lan0/arp_ignore", "1"), 0; });
    const sockaddr_in unit = InternetAddress(inet_addr("192.168.1.20"), 62976);
    const std::string search = Header(0xA1);
    for (int i = 0; i < 400; ++i) {
        const UniqueFd sock(OnLan([] { return socket(AF_INET, SOCK_DGRAM, 0); }));
        const sockaddr_in nobody = InternetAddress(htonl(0x0A070000 + i), 5000);
        EXPECT_EQ(bind(sock.get(), AsSockaddr(nobody), sizeof nobody), 0);
        sendto(sock.get(), search.data(), search.size(), 0, AsSockaddr(unit), sizeof unit);
        usleep(3000);
    }
    const time_t start = time(nullptr);
    EXPECT_EQ(Ask(Header(0xA5)).size(), 22u);
    EXPECT_LE(time(nullptr) - start, 1);
}
