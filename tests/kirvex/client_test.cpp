// The search and the setup that tools make, against the real server and against hostile replies.
#include "kirvex/client.h"

#include "common/owners.h"
#include "kirvex/print.h"
#include "kirvex/support.h"

// A record's bytes.
static std::string Record(const std::string &model, const std::string &name, const std::string &ip,
                          const std::string &port, const std::string &dns, const std::string &mac) {
    return Field(model, 32) + Field(name, 32) + Field(name, 64) + Field(ip, 16) + Field(port, 8) +
           Field("255.255.255.0", 16) + Field("192.168.1.1", 16) + Field(dns, 16) +
           Field(mac, sizeof(UnitInfo) - offsetof(UnitInfo, mac));
}

// What a search on the LAN finds.
static HeapBlock<UnitInfo> Search(int count) {
    UnitInfo *list = nullptr;
    EXPECT_EQ(OnLan([&] { return KIRVEX_DevSearch("lan0", &list); }), count);
    return HeapBlock<UnitInfo>(list);
}

static int Configure(const char *device, const char *target) {
    const std::string bytes =
        Record("", "QVR-7140-16T", "192.168.1.44", "", "", "02-00:5e 00:53:01");
    UnitInfo unit;
    memcpy(&unit, bytes.data(), sizeof unit);
    return OnLan([&] { return KIRVEX_SetBasicInfo(device, target, &unit); });
}

TEST(KirvexClient, FindsAndSetsTheRealUnit) {
    WriteFile("/etc/resolv.conf", "nameserver 10.0.0.1\n");
    WriteFile("/mtd1/interfaces", "iface eth0 inet dhcp\n");
    const Server server;
    const ScriptedServer web =
        Canned(8080, "HTTP/1.1 200 OK\r\n\r\nUsername=[admin] ID=[7]</p>\nSuccess");
    const HeapBlock<UnitInfo> unit = Search(1);
    EXPECT_EQ(
        std::string(reinterpret_cast<char *>(unit.get()), sizeof(UnitInfo)),
        Record("Orvane", "QVR-7140-16T", "192.168.1.20", "8080", "10.0.0.1", "02:00:5E:00:53:01"));
    EXPECT_EQ(Configure("lan0", "192.168.1.20"), 0);
    EXPECT_EQ(ReadFile("/mtd1/interfaces"),
              "iface eth0 inet static\n  address 192.168.1.44\n  netmask 255.255.255.0\n"
              "  gateway 192.168.1.1\n\n");
    EXPECT_EQ(ReadFile("/etc/resolv.conf"), "nameserver 0.0.0.0\n");
}

// What a call asked a peer on the unit's side, which answered with these packets.
static std::string Asked(const std::vector<std::string> &replies,
                         const std::function<void()> &call) {
    const BoundSocket unit(SOCK_DGRAM, INADDR_ANY, 62976);
    std::string request(1024, 'x');
    std::thread answers([&] {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        request.resize(recvfrom(unit.fd.get(), request.data(), request.size(), 0,
                                reinterpret_cast<sockaddr *>(&peer), &size));
        for (const std::string &reply : replies) {
            sendto(unit.fd.get(), reply.data(), reply.size(), 0, AsSockaddr(peer), size);
        }
    });
    call();
    answers.join();
    return request;
}

static std::string Reply(int operation) {
    return Field(Bytes({0xEE, 0xFE, 0, 0, operation}), 22);
}

TEST(KirvexClient, JudgesReplies) {
    const std::string full = Reply(0xA1) + std::string(312, '9'), odd = Field("\xFE\xEE", 334);
    const std::string refusal = Reply(0xA2).replace(16, 2, "\1\2");
    const std::string failure = Reply(0xA1).replace(16, 6, "\1\2");
    const std::string searched =
        Asked({"", "\xEE", odd, refusal, failure, full + "more", full.substr(0, 22)}, [] {
            HeapBlock<UnitInfo> found;
            const std::string log = OutputOf([&] { found = Search(2); });
            EXPECT_EQ(found.get()[0].model, std::string(31, '9'));
            EXPECT_EQ(found.get()[0].name, std::string(63, '9'));
            EXPECT_STREQ(found.get()[0].trigger_port, "14649");
            EXPECT_STREQ(found.get()[1].ip, "0.0.0.0");
            EXPECT_EQ(
                Shorten(log),
                Said("KIRVEX_DevSearch",
                     "[0X0000] - Not KIRVEX reply packet\n[0X00EE] - Not KIRVEX reply packet\n"
                     "[0XEEFE] - Not KIRVEX reply packet\n[0X00A2] - Not KIRVEX Discovery packet\n"
                     "retcode[0X0201] - recvive error packet\n"));
        });
    EXPECT_EQ(searched, Bytes({0xFD, 0xFD, 0, 0, 0xA1, 0}) + std::string(6, '\xFF') +
                            Field(Field("", 6) + "\1", 10));
    WriteFile("/etc/Port", "8080\n");
    const std::string configured = Asked({"\xEE", full, refusal}, [] {
        const std::string log = OutputOf([] {
            EXPECT_EQ(Configure("lan0", "192.168.1.20"), 0) << "time is over";
            EXPECT_EQ(Configure("lan9", "192.168.1.20"), -1);
            EXPECT_EQ(Configure("lan0", "nowhere"), -1);
        });
        EXPECT_EQ(Shorten(log),
                  Said("KIRVEX_SetBasicInfo",
                       "[0X00A1] - Not KIRVEX Set Basic Information packet\n"
                       "retcode[0X0201] - recvive error packet\n") +
                      Said("KIRVEX_PrintHeader",
                           "identifier: 0xFEEE\nsequence number: 0x0000\nop_code: 0x00A2\n"
                           "MAC: 00:00:00:00:00:00\nIP: 0.0.0.0\nreq_mode: 0x0201\n"
                           "message version: 0x0000\nbody_len: 0x0000\n") +
                      Said("KIRVEX_PrintReplyPkt",
                           "Error Setting Num: 0x00000000\nOperation Status: 0x00000000\n"
                           "Wait Timer: 0x00000000\nExtension: 0x00000000\n") +
                      Said("KIRVEX_SetBasicInfo", "setsockopt error: No such device\n"));
    });
    EXPECT_EQ(configured, Header(0xA2).replace(2, 2, 2, '\0').replace(20, 1, "\xD9") +
                              Field("YWRtaW4=", 128) +
                              Settings("QVR-7140-16T", "192.168.1.1")
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
        std::string output;
        Asked({Reply(0xA1) + std::string(312, '\0')}, [&] {
            timespec start, end;
            clock_gettime(CLOCK_MONOTONIC, &start);
            clockStep = step;
            output = OutputOf([] { Search(1); });
            clockStep = 0;
            clock_gettime(CLOCK_MONOTONIC, &end);
            EXPECT_LT(end.tv_sec - start.tv_sec, 4);
        });
        EXPECT_EQ(output.find("time error - Should never happen\n") != output.npos, step < 0);
    }
}

// A search reply whose texts all fill their fields, with something else behind it.
TEST(KirvexClient, PrintsNothingBeyondThePacket) {
    uint8_t packet[350];
    for (size_t i = 0; i < sizeof packet; ++i) {
        packet[i] = static_cast<uint8_t>("0123456789abcdef"[i % 16]);
    }
    packet[4] = 0xA1, packet[5] = 0;
    const std::string text(packet, packet + 334);
    const std::string log =
        Shorten(OutputOf([&] { KIRVEX_PrintReplyPkt(std::span(packet).first<334>()); }));
    EXPECT_EQ(log.substr(log.find("KIRVEX:KIRVEX_PrintReplyPkt")),
              Said("KIRVEX_PrintReplyPkt",
                   "Brand Name: " + text.substr(22) + "\nProduct Name: " + text.substr(86) +
                       "\nModel Name: " + text.substr(150) + "\nVersion: " + text.substr(182) +
                       "\nProduct Type: 0x3736\nProduct HW Specification: 0x62613938\n"
                       "MAC: 63:64:65:66:30:31\nCamera Name: " +
                       text.substr(226) +
                       "\nIP: 50.51.52.53\nWeb Port Number: 14134\nReserved: 0x38\nSCDNS: 0x39\n"
                       "Netmask: 97.98.99.100\nGateway: 101.102.48.49\npDNS: 50.51.52.53\n"
                       "sDNS: 54.55.56.57\nDHCP ON/OFF: ON\nDate Time: " +
                       text.substr(315) + "\nTimeZone: 0x6263\nDaylight Saving Time: 0x64\n"));
    packet[4] = 0xA3;
    EXPECT_TRUE(
        Holds(Shorten(OutputOf([&] { KIRVEX_PrintReplyPkt(std::span(packet).first<334>()); })),
              Said("KIRVEX_PrintReplyPkt", "User Privilege: 0x39383736\n")));
}
