#include <arpa/inet.h>
#include <sys/socket.h>

#include <vector>

#include "common/base64.h"
#include "common/buffer.h"
#include "common/owners.h"
#include "common/socket.h"
#include "discovery/announce.h"
#include "discovery/client.h"
#include "discovery/raw_broadcast.h"
#include "discovery/receiver.h"
#include "discovery/server.h"
#include "support/files.h"

static constexpr char kUnitText[] =
    "Moravelle,01,QVR-7140-16T,NVR,unit,192.168.1.20,80,255.255.255.0,192.168.1.1,10.0.0.1,"
    "02:00:5E:00:53:01,eth0,note";

// Scrambles and encodes a text with its zero byte, as a package travels.
static std::string Encode(std::string text) {
    text += '\0';
    COM_XorBuffer(text.data(), static_cast<int>(text.size()));
    std::string encoded(Base64TextSize(text.size()), '\0');
    encoded.resize(static_cast<size_t>(
        COM_Base64Encode(encoded.data(), text.data(), static_cast<int>(text.size()))));
    return encoded;
}

static void SetIdentity() {
    WriteFile("/etc/Model", "QVR-7140-16T\n");
    WriteFile("/etc/Proj", "NVR\n");
    WriteFile("/etc/Note", "note\n");
    WriteFile("/etc/Port", "80\n");
    WriteFile("/etc/resolv.conf", "nameserver 10.0.0.1\n");
    Shell("ip route replace default via 192.168.1.1");
}

TEST(Package, IsBuiltFromTheUnitsOwnRecord) {
    SetIdentity();
    UnitInfo target{};
    strcpy(target.model, "other");
    memset(target.note, 'n', sizeof target.note - 1);
    const struct {
        int type, result;
        const UnitInfo *info;
        std::string text, message;
    } kCases[] = {
        {0, 0, nullptr, "Moravelle,00,QVR-7140-16T", ""},
        {1, 0, nullptr, kUnitText, ""},
        {2, -1, nullptr, "", "TQ_CreatePackage(): Undefined type = 2\n"},
        {3, 0, &target, "Moravelle,03,other,,,,,,,,,," + std::string(63, 'n'), ""},
        {3, -1, nullptr, "", ": invalid pInfo for TQ_PACKAGE_NETWORK_SETUP pkg!\n"},
        {-1, -1, nullptr, "", "Undefined type = -1\n"},
    };
    for (const auto &c : kCases) {
        char package[discovery::kPackageSize] = "";
        const std::string output = OutputOf(
            [&] { EXPECT_EQ(c.result, TQ_CreatePackage("eth0", c.type, package, c.info)); });
        ExpectSaid(c.message, output);
        EXPECT_EQ(c.result == 0 ? Encode(c.text) : "", package);
    }
    EXPECT_EQ(36u, Encode("Moravelle,00,QVR-7140-16T").size());
    char package[discovery::kPackageSize];
    OutputOf([&] { EXPECT_EQ(-1, TQ_CreatePackage("none", 3, package, &target)); });
}

TEST(Package, IsParsedFieldByField) {
    const std::string unit = kUnitText;
    const auto with = [&](const std::string &from, const std::string &to) {
        std::string text = unit;
        return text.replace(text.find(from), from.size(), to);
    };
    const auto setup = [&](const std::string &from, const std::string &to) {
        return with(from, to).replace(10, 2, "03");
    };
    const std::string refused = "flag(-1) not implemented.\n";
    const struct {
        std::string text;
        int type;
        std::string note, message;
    } kCases[] = {
        {unit, 1, "note", ""},
        {with(",01", ",2"), 2, "note", ""},
        {with(",01", ",03"), 3, "note", ""},
        {unit + ",twelfth", 1, "note", ""},
        {with("note", "a\nb"), 1, "a", ""},
        {with(",01", "x1"), 1, "note", ""},
        {with("note", ""), -1, "10/11", ""},
        {with("NVR", ""), -1, "", refused},
        {"Moravelle,01", -1, "0/11", ""},
        {"Moravelle,x", 0, "", ""},
        {"Moravelle,00,model", 0, "", ""},
        {"Moravelle,00,m,p,n,1.2.3.999", -1, "", refused},
        {"Moravelle", -1, "", refused},
        {"Moravelle,", -1, "", refused},
        {with(",01", ",7"), -1, "note", "flag(07) not implemented.\n"},
        {with(",01", ",99999999999"), -1, "note", "flag(2147483647) not implemented.\n"},
        {with(",80,", ",80.5,"), -1, "", refused},
        {with(",80,", ",70000,"), -1, "", refused},
        {with(",80,", ",4294967376,"), -1, "", refused},
        {with(",80,", ",-1,"), -1, "", refused},
        {with("192.168.1.20", "1.2.3.999"), -1, "", refused},
        {with("192.168.1.20", "10.0.0.1 ;id"), 1, "note", ""},
        {setup("192.168.1.20", "10.0.0.1 ;id"), -1, "", refused},
        {setup("255.255.255.0", "255.0.0.0\t#"), -1, "", refused},
        {setup("192.168.1.20", "10.0.0.1 "), 3, "note", ""},
        {with("192.168.1.20", "10.1"), 1, "note", ""},
        {with("02:00:5E:00:53:01", "00:11:22:33:44:5"), -1, "", refused},
        {with("02:00:5E:00:53:01", "00-11-22-33-44-55"), -1, "", refused},
        {with("note", std::string(1000, 'n')), 1, std::string(63, 'n'), ""},
        {with("QVR-7140-16T", std::string(9000, 'm')), 1, "note", ""},
        {"moravelle,00", -1, "", "\"Moravelle\" not found!!\n"},
        {"", -1, "", "\"Moravelle\" not found!!\n"},
        {std::string("Moravelle") + '\0' + "1,x", -1, "1/11", ""},
    };
    for (const auto &c : kCases) {
        UnitInfo record{};
        const std::string output = OutputOf([&] {
            EXPECT_EQ(c.type, TQ_ParserPackage(Encode(c.text).c_str(), &record)) << c.text;
        });
        EXPECT_EQ(c.note, record.note) << c.text;
        if (c.message.empty()) {
            EXPECT_EQ("", output) << c.text;
        } else {
            EXPECT_NE(std::string::npos, output.find("TQ_ParserPackage(): " + c.message)) << output;
        }
    }
    UnitInfo record{};
    EXPECT_EQ(-1, TQ_ParserPackage(nullptr, &record));
    std::string spaced = Encode(unit);
    spaced.insert(7, "\r\n \t");
    EXPECT_EQ(1, TQ_ParserPackage(spaced.c_str(), &record));
    EXPECT_STREQ("02:00:5E:00:53:01", record.mac);
}

TEST(Broadcast, ChecksumsAreThoseOfTheInternet) {
    const struct {
        std::string bytes;
        uint16_t checksum;
    } kCases[] = {{std::string("\x00\x01\xf2", 3), 0x0DFE},
                  {std::string("\x00\x01\xf2\x03\xf4\xf5\xf6\xf7", 8), 0x220D},
                  {"", 0xFFFF},
                  {"\xff\xff\xff", 0x00FF},
                  {std::string(200000, '\xff'), 0}};
    for (const auto &c : kCases) {
        EXPECT_EQ(c.checksum, COM_CalRawPkgChecksum(c.bytes.data(), c.bytes.size()));
    }
}

TEST(Broadcast, RefusesWhatDoesNotFit) {
    const std::string data(1501, 'x');
    const struct {
        const char *device;
        int size, result;
        const char *message;
    } kCases[] = {{"eth0", 1501, -1, ": data_sz[1501] exceed limit[1500]!\n"},
                  {"eth0", -1, -1, ": data_sz[-1] exceed limit[1500]!\n"},
                  {"eth0", 1500, -1, ": sendto(eth0:6667) error : Message too long\n"},
                  {"eth0", 1472, 0, ""},
                  {"eth0", 0, 0, ""},
                  {nullptr, 10, -1, ""}};
    for (const auto &c : kCases) {
        const std::string output = OutputOf([&] {
            EXPECT_EQ(c.result, COM_SendUDPBroadcast(c.device, 6667, data.data(), c.size));
        });
        ExpectSaid(c.message, output);
    }
    UniqueFd first;
    UniqueFd second;
    sockaddr_in loopback = InternetAddress(htonl(INADDR_LOOPBACK), 0);
    ASSERT_EQ(0, TQ_CreateUDPBroadcastSocket(7000, first.address(), &loopback));
    EXPECT_EQ(htons(7000), loopback.sin_port);
    sockaddr_in foreign = InternetAddress(inet_addr("10.9.9.9"), 0);
    const std::string output = OutputOf(
        [&] { EXPECT_EQ(-1, TQ_CreateUDPBroadcastSocket(7000, second.address(), &foreign)); });
    EXPECT_EQ(0u, output.find("TQ,")) << output;
    EXPECT_NE(std::string::npos,
              output.find("TQ_CreateUDPBroadcastSocket(): bind() error : Cannot assign"));
    EXPECT_TRUE(second);
}

TEST(Discovery, FiltersByProjectAndNetwork) {
    UnitInfo record{};
    strcpy(record.proj, "NAS");
    strcpy(record.ip, "192.168.1.20");
    strcpy(record.netmask, "255.255.255.0");
    const uint32_t network = inet_addr("192.168.1.0");
    EXPECT_EQ(1, TQ_Filter(&record, nullptr, 0));
    EXPECT_EQ(1, TQ_Filter(&record, "nas", network));
    EXPECT_EQ(0, TQ_Filter(&record, "nvr", 0));
    EXPECT_EQ(0, TQ_Filter(&record, "NAS", inet_addr("192.168.2.0")));
}

// Sends packages to the collecting socket of this host, a moment after a discovery has begun.
static pid_t SendReplies(const std::vector<std::string> &packages) {
    const pid_t child = fork();
    if (child == 0) {
        const UniqueFd sock(socket(AF_INET, SOCK_DGRAM, 0));
        const sockaddr_in to = InternetAddress(htonl(INADDR_LOOPBACK), TQ_CLIENT_PORT);
        usleep(300000);
        for (const std::string &package : packages) {
            sendto(sock.get(), package.data(), package.size(), 0, AsSockaddr(to), sizeof to);
        }
        _exit(0);
    }
    return child;
}

TEST(Discovery, ListsWhatWasHeardTwiceInDescendingOrder) {
    const auto unit = [](const char *mac, const char *name) {
        return Encode(std::string("Moravelle,01,m,NVR,") + name + ",10.0.0.1,80,255.0.0.0,g,d," +
                      mac + ",eth0,n");
    };
    const std::string low = unit("00:11:22:33:44:55", "low");
    const std::string high = unit("00:11:22:33:44:66", "high");
    const std::string once = unit("00:11:22:33:44:77", "once");
    const pid_t child = SendReplies({low, high, once, "garbage", "", low, high, high,
                                     std::string(5000, 'x'), Encode("Moravelle,00,query")});
    UnitInfo *list = nullptr;
    int count = 0;
    OutputOf([&] { count = TQ_GetAllUnit("eth0", &list, "nvr", 0); });
    ASSERT_EQ(2, count);
    EXPECT_STREQ("high", list[0].name);
    EXPECT_STREQ("low", list[1].name);
    free(list);
    waitpid(child, nullptr, 0);

    list = nullptr;
    SendReplies({once});
    OutputOf([&] { EXPECT_EQ(0, TQ_GetAllUnit("eth0", &list, nullptr, 0)); });
    waitpid(-1, nullptr, 0);
    EXPECT_EQ("", OutputOf([&] { EXPECT_EQ(-1, TQ_GetAllUnit("eth0", &list, nullptr, 0)); }));
    EXPECT_EQ(nullptr, list);

    // Somebody else has the clients' port, and shares it with nobody.
    UniqueFd other;
    sockaddr_in address{};
    ASSERT_EQ(0, TQ_CreateUDPBroadcastSocket(TQ_CLIENT_PORT, other.address(), &address));
    const int off = 0;
    setsockopt(other.get(), SOL_SOCKET, SO_REUSEADDR, &off, sizeof off);
    EXPECT_NE(std::string::npos, OutputOf([&] {
                                     EXPECT_EQ(-1, TQ_GetAllUnit("eth0", &list, nullptr, 0));
                                 }).find("(): TQ_CreateUDPBroadcastSocket(6666) failed!\n"));
}

TEST(Server, RecognisesItsOwnRecordOnce) {
    SetIdentity();
    UnitInfo own{};
    COM_GetUnitInfo(&own, "eth0");
    UnitInfo package = own;
    strcpy(package.ip, "10.0.0.9");
    strcpy(package.note, "dhcp");
    EXPECT_EQ(0, TQ_CheckUnitInfo(&own, &package));
    EXPECT_EQ(-1, TQ_CheckUnitInfo(&own, nullptr));
    for (char *field : {package.model, package.proj, package.name, package.trigger_port,
                        package.mac, package.dev}) {
        const char kept = field[0];
        field[0] ^= 0x20;
        EXPECT_EQ(-1, TQ_CheckUnitInfo(&own, &package));
        field[0] = kept;
    }
    // Every further filling lets the identity grow, also that of a field which is full.
    WriteFile("/etc/Model", std::string(31, 'm'));
    UnitInfo full{};
    COM_GetUnitInfo(&full, "eth0");
    package = full;
    COM_GetUnitInfo(&full, "eth0");
    EXPECT_EQ(-1, TQ_CheckUnitInfo(&full, &package));
}

TEST(Server, ASetupPackageIsBroadcast) {
    UnitInfo info{};
    EXPECT_EQ(0, TQ_SendNetworkSetupPkg("eth0", 6666, &info));
    OutputOf([&] { EXPECT_EQ(-1, TQ_SendNetworkSetupPkg("none", 6666, &info)); });
}
