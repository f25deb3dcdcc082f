#include "kirvex/client.h"

#include "common/heap.h"
#include "kirvex/bench.h"
#include "kirvex/packet.h"

static const char kUnitIp[] = "192.168.1.20";
static const UnitInfo kWanted = {"",
                                 "",
                                 "QVR-7140-16T",
                                 "192.168.1.44",
                                 "",
                                 "255.255.255.0",
                                 "192.168.1.1",
                                 "",
                                 "02-00:5e 00:53:01",
                                 "",
                                 "",
                                 0};

TEST(KirvexClient, FindsAndSetsTheRealUnit) {
    WriteFile("/etc/resolv.conf", "nameserver 10.0.0.1\n");
    WriteFile("/mtd1/interfaces", "iface eth0 inet dhcp\n");
    const Child server = StartServer();
    const Child web =
        StartCanned(8080, "HTTP/1.1 200 OK\r\n\r\nUsername=[admin] ID=[7]</p>\nSuccess");
    EXPECT_EQ(Ask(Header(0xA5)).size(), 22u);
    const OnLan lan;
    UnitInfo *list = nullptr;
    ASSERT_EQ(KIRVEX_DevSearch("lan0", &list), 1);
    const HeapBlock<UnitInfo> unit(list);
    const UnitInfo expected = {"Orvane",
                               "QVR-7140-16T",
                               "QVR-7140-16T",
                               "192.168.1.20",
                               "8080",
                               "255.255.255.0",
                               "192.168.1.1",
                               "10.0.0.1",
                               "02:00:5E:00:53:01",
                               "",
                               "",
                               0};
    EXPECT_EQ(memcmp(list, &expected, sizeof expected), 0);
    EXPECT_EQ(KIRVEX_SetBasicInfo("lan0", kUnitIp, &kWanted), 0);
    EXPECT_EQ(ReadFile("/mtd1/interfaces"),
              "iface eth0 inet static\n  address 192.168.1.44\n  netmask 255.255.255.0\n"
              "  gateway 192.168.1.1\n\n");
    EXPECT_EQ(ReadFile("/etc/resolv.conf"), "nameserver 0.0.0.0\n");
}

// A peer on the unit's side that records a request in /tmp/peer and answers with these packets.
static Child StartPeer(const std::vector<std::string> &replies) {
    const UniqueFd sock(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in any = InternetAddress(INADDR_ANY, 62976);
    EXPECT_EQ(bind(sock.get(), AsSockaddr(any), sizeof any), 0);
    return Child("/tmp/peer", [&] {
        char request[1024];
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const ssize_t count = recvfrom(sock.get(), request, sizeof request, 0,
                                       reinterpret_cast<sockaddr *>(&peer), &size);
        EXPECT_EQ(write(STDOUT_FILENO, request, static_cast<size_t>(count)), count);
        for (const std::string &reply : replies) {
            sendto(sock.get(), reply.data(), reply.size(), 0, AsSockaddr(peer), size);
        }
        pause();
    });
}

TEST(KirvexClient, JudgesReplies) {
    const std::string full = Bytes({0xEE, 0xFE, 0, 0, 0xA1}, 22) + std::string(312, '9');
    const std::string refusal = Bytes({0xEE, 0xFE, 0, 0, 0xA2}, 16) + Bytes({1, 2}, 22);
    Child peer = StartPeer({"", "\xEE", Bytes({0xFE, 0xEE}, 334), refusal,
                            Bytes({0xEE, 0xFE, 0, 0, 0xA1}, 16) + "\1\2", full + "more",
                            full.substr(0, 22)});
    UnitInfo *list = nullptr;
    EXPECT_EQ(Shorten(OutputOf([&] {
                  const OnLan lan;
                  ASSERT_EQ(KIRVEX_DevSearch("lan0", &list), 2);
              })),
              "KIRVEX_DevSearch(): [0X0000] - Not KIRVEX reply packet\n"
              "KIRVEX_DevSearch(): [0X00EE] - Not KIRVEX reply packet\n"
              "KIRVEX_DevSearch(): [0XEEFE] - Not KIRVEX reply packet\n"
              "KIRVEX_DevSearch(): [0X00A2] - Not KIRVEX Discovery packet\n"
              "KIRVEX_DevSearch(): retcode[0X0201] - recvive error packet\n");
    const HeapBlock<UnitInfo> found(list);
    EXPECT_EQ(list[0].model, std::string(31, '9'));
    EXPECT_EQ(list[0].name, std::string(63, '9'));
    EXPECT_STREQ(list[0].trigger_port, "14649");
    EXPECT_STREQ(list[1].ip, "0.0.0.0");
    EXPECT_EQ(
        ReadFile("/tmp/peer"),
        Bytes({0xFD, 0xFD, 0, 0, 0xA1, 0, 255, 255, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 1}, 22));
    peer.Stop();

    WriteFile("/etc/Port", "8080\n");
    const Child unit = StartPeer({"\xEE", full, refusal});
    EXPECT_EQ(Shorten(OutputOf([] {
                  const OnLan lan;
                  EXPECT_EQ(KIRVEX_SetBasicInfo("lan0", kUnitIp, &kWanted), 0) << "time is over";
                  EXPECT_EQ(KIRVEX_SetBasicInfo("lan9", kUnitIp, &kWanted), -1);
                  EXPECT_EQ(KIRVEX_SetBasicInfo("lan0", "nowhere", &kWanted), -1);
              })),
              "KIRVEX_SetBasicInfo(): [0X00A1] - Not KIRVEX Set Basic Information packet\n"
              "KIRVEX_SetBasicInfo(): retcode[0X0201] - recvive error packet\n"
              "KIRVEX_PrintHeader(): identifier: 0xFEEE\n"
              "KIRVEX_PrintHeader(): sequence number: 0x0000\n"
              "KIRVEX_PrintHeader(): op_code: 0x00A2\n"
              "KIRVEX_PrintHeader(): MAC: 00:00:00:00:00:00\n"
              "KIRVEX_PrintHeader(): IP: 0.0.0.0\n"
              "KIRVEX_PrintHeader(): req_mode: 0x0201\n"
              "KIRVEX_PrintHeader(): message version: 0x0000\n"
              "KIRVEX_PrintHeader(): body_len: 0x0000\n"
              "KIRVEX_PrintReplyPkt(): Error Setting Num: 0x00000000\n"
              "KIRVEX_PrintReplyPkt(): Operation Status: 0x00000000\n"
              "KIRVEX_PrintReplyPkt(): Wait Timer: 0x00000000\n"
              "KIRVEX_PrintReplyPkt(): Extension: 0x00000000\n"
              "KIRVEX_SetBasicInfo(): setsockopt error: No such device\n");
    EXPECT_EQ(ReadFile("/tmp/peer"), Header(0xA2).replace(2, 2, 2, '\0').replace(20, 1, "\xD9") +
                                         Field("YWRtaW4=", 128) +
                                         Settings(kWanted.name, false, inet_addr(kWanted.gateway))
                                             .replace(68, 2, "\x90\x1F")
                                             .replace(80, 4, 4, '\0'));
}

// The clock that the program sees is set anew, by this many seconds, before each look at it.
static time_t clockStep, clockOffset;
extern "C" int gettimeofday(timeval *__restrict now, void *__restrict) noexcept {
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    *now = {real.tv_sec + (clockOffset += clockStep), real.tv_nsec / 1000};
    return 0;
}

TEST(KirvexClient, IsNotHeldByAClockThatJumps) {
    for (const time_t step : {-3600, 3600, 0}) {
        const Child peer = StartPeer({Bytes({0xEE, 0xFE, 0, 0, 0xA1}, 334)});
        timespec start, end;
        clock_gettime(CLOCK_MONOTONIC, &start);
        clockStep = step;
        UnitInfo *list = nullptr;
        const std::string output = OutputOf([&] {
            const OnLan lan;
            EXPECT_EQ(KIRVEX_DevSearch("lan0", &list), 1);
        });
        free(list);
        clockStep = 0;
        clock_gettime(CLOCK_MONOTONIC, &end);
        EXPECT_LT(end.tv_sec - start.tv_sec, 4);
        EXPECT_EQ(output.find("time error - Should never happen\n") != output.npos, step < 0);
    }
}

// A search reply whose texts all fill their fields, in a block of just its size.
TEST(KirvexClient, PrintsNothingBeyondThePacket) {
    const size_t size = 334;
    const HeapBlock<uint8_t> packet = ZeroedBlock<uint8_t>(size);
    for (size_t i = 0; i < size; ++i) {
        packet.get()[i] = static_cast<uint8_t>("0123456789abcdef"[i % 16]);
    }
    packet.get()[4] = 0xA1, packet.get()[5] = 0;
    const std::string text(reinterpret_cast<char *>(packet.get()), size);
    std::string log = Shorten(OutputOf([&] { KIRVEX_PrintReplyPkt(packet.get()); }));
    for (size_t at; (at = log.find("KIRVEX_PrintReplyPkt(): ")) != std::string::npos;) {
        log.erase(at, 24);
    }
    EXPECT_EQ(log.substr(log.find("Brand")),
              "Brand Name: " + text.substr(22) + "\nProduct Name: " + text.substr(86) +
                  "\nModel Name: " + text.substr(150) + "\nVersion: " + text.substr(182) +
                  "\nProduct Type: 0x3736\nProduct HW Specification: 0x62613938\n"
                  "MAC: 63:64:65:66:30:31\nCamera Name: " +
                  text.substr(226) +
                  "\nIP: 50.51.52.53\nWeb Port Number: 14134\nReserved: 0x38\nSCDNS: 0x39\n"
                  "Netmask: 97.98.99.100\nGateway: 101.102.48.49\npDNS: 50.51.52.53\n"
                  "sDNS: 54.55.56.57\nDHCP ON/OFF: ON\nDate Time: " +
                  text.substr(315) + "\nTimeZone: 0x6263\nDaylight Saving Time: 0x64\n");
}
