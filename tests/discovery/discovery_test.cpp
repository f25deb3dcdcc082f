// The native protocol: packages, broadcasts, the client's list, and whom a setup is for.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

#include "common/base64.h"
#include "common/owners.h"
#include "common/socket.h"
#include "discovery/announce.h"
#include "discovery/client.h"
#include "discovery/raw_broadcast.h"
#include "discovery/receiver.h"
#include "discovery/server.h"
#include "support/files.h"

using std::string_literals::operator""s;

static constexpr char kUnitText[] =
    "Moravelle,01,QVR-7140-16T,NVR,unit,192.168.1.20,80,255.255.255.0,192.168.1.1,10.0.0.1,"
    "02:00:5E:00:53:01,eth0,note";

// Scrambles and encodes a text with its zero byte, as a package travels.
static std::string Encode(std::string text) {
    text += '\0';
    std::string encoded(Base64TextSize(text.size()), '\0');
    encoded.resize(discovery::EncodeTexts(text, encoded.data()));
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
        const char *device;
        int type;
        const UnitInfo *info;
        std::string text, message;
    } kRows[] = {
        {"eth0", 0, nullptr, "Moravelle,00,QVR-7140-16T", ""},
        {nullptr, 1, nullptr, kUnitText, ""},
        {"eth0", 2, nullptr, "", "TQ_CreatePackage(): Undefined type = 2\n"},
        {"eth0", 3, &target, "Moravelle,03,other,,,,,,,,,," + std::string(63, 'n'), ""},
        {"eth0", 3, nullptr, "", ": invalid pInfo for TQ_PACKAGE_NETWORK_SETUP pkg!\n"},
        {"eth0", -1, nullptr, "", "Undefined type = -1\n"},
        {"none", 3, &target, "", "ioctl("},
    };
    for (const auto &row : kRows) {
        char package[discovery::kPackageSize] = "";
        int result = 0;
        EXPECT_SAYS(
            OutputOf([&] { result = TQ_CreatePackage(row.device, row.type, package, row.info); }),
            row.message);
        EXPECT_EQ(result, row.text.empty() ? -1 : 0) << row.type;
        EXPECT_EQ(package, row.text.empty() ? "" : Encode(row.text));
    }
    EXPECT_EQ(Encode("Moravelle,00,QVR-7140-16T").size(), 36u);
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
    } kRows[] = {
        {unit, 1, "note", ""},
        {with(",01", ",2"), 2, "note", ""},
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
        {setup("192.168.1.20", "10.1 "), 3, "note", ""},
        {with("02:00:5E:00:53:01", "00:11:22:33:44:5"), -1, "", refused},
        {with("02:00:5E:00:53:01", "00-11-22-33-44-55"), -1, "", refused},
        {with("note", std::string(1000, 'n')), 1, std::string(63, 'n'), ""},
        {with("QVR-7140-16T", std::string(9000, 'm')), 1, "note", ""},
        {"moravelle,00", -1, "", "\"Moravelle\" not found!!\n"},
        {"", -1, "", "\"Moravelle\" not found!!\n"},
        {"Moravelle\0001,x"s, -1, "1/11", ""},
    };
    for (const auto &row : kRows) {
        UnitInfo record{};
        const std::string output = OutputOf([&] {
            EXPECT_EQ(TQ_ParserPackage(Encode(row.text).c_str(), &record), row.type) << row.text;
        });
        EXPECT_EQ(record.note, row.note) << row.text;
        EXPECT_SAYS(output, row.message.empty() ? "" : "TQ_ParserPackage(): " + row.message);
    }
    UnitInfo record{};
    EXPECT_EQ(TQ_ParserPackage(nullptr, &record), -1);
    std::string spaced = Encode(unit);
    spaced.insert(7, "\r\n \t");
    EXPECT_EQ(TQ_ParserPackage(spaced.c_str(), &record), 1);
    EXPECT_STREQ(record.mac, "02:00:5E:00:53:01");
}

TEST(Broadcast, ChecksumsAreThoseOfTheInternet) {
    const struct {
        std::string bytes;
        uint16_t checksum;
    } kRows[] = {{"\x00\x01\xf2"s, 0x0DFE},
                 {"\x00\x01\xf2\x03\xf4\xf5\xf6\xf7"s, 0x220D},
                 {"", 0xFFFF},
                 {"\xff\xff\xff", 0x00FF},
                 {std::string(200000, '\xff'), 0}};
    for (const auto &row : kRows) {
        EXPECT_EQ(COM_CalRawPkgChecksum(row.bytes.data(), row.bytes.size()), row.checksum);
    }
}

TEST(Broadcast, RefusesWhatDoesNotFit) {
    const std::string data(1501, 'x');
    const struct {
        const char *device;
        int size, result;
        const char *message;
    } kRows[] = {{"eth0", 1501, -1, ": data_sz[1501] exceed limit[1500]!\n"},
                 {"eth0", -1, -1, ": data_sz[-1] exceed limit[1500]!\n"},
                 {"eth0", 1500, -1, ": sendto(eth0:6667) error : Message too long\n"},
                 {"eth0", 1472, 0, ""},
                 {"eth0", 0, 0, ""},
                 {nullptr, 10, -1, ""}};
    for (const auto &row : kRows) {
        int result = 0;
        const std::string output = OutputOf(
            [&] { result = COM_SendUDPBroadcast(row.device, 6667, data.data(), row.size); });
        EXPECT_EQ(result, row.result) << row.size;
        EXPECT_SAYS(output, row.message);
    }
}

TEST(Receiver, SharesItsPortAndReportsWhatItCannotBind) {
    UniqueFd socks[3];
    sockaddr_in own = InternetAddress(htonl(INADDR_LOOPBACK), 0);
    sockaddr_in foreign = InternetAddress(inet_addr("10.9.9.9"), 0);
    EXPECT_EQ(TQ_CreateUDPBroadcastSocket(7000, socks[0].address(), &own), 0);
    EXPECT_EQ(TQ_CreateUDPBroadcastSocket(7000, socks[1].address(), &own), 0);
    EXPECT_EQ(own.sin_port, htons(7000));
    EXPECT_SAYS(OutputOf([&] {
                    EXPECT_EQ(TQ_CreateUDPBroadcastSocket(7000, socks[2].address(), &foreign), -1);
                }),
                "TQ_CreateUDPBroadcastSocket(): bind() error : Cannot assign");
    EXPECT_TRUE(socks[2]);
}

TEST(Discovery, FiltersByProjectAndNetwork) {
    UnitInfo record{};
    strcpy(record.proj, "NAS");
    strcpy(record.ip, "192.168.1.20");
    strcpy(record.netmask, "255.255.255.0");
    EXPECT_EQ(TQ_Filter(&record, nullptr, 0), 1);
    EXPECT_EQ(TQ_Filter(&record, "nas", inet_addr("192.168.1.0")), 1);
    EXPECT_EQ(TQ_Filter(&record, "nvr", 0), 0);
    EXPECT_EQ(TQ_Filter(&record, "NAS", inet_addr("192.168.2.0")), 0);
}

// A discovery, during which packages come in at the collecting socket of this host: its result, and
// the names of its units in their order.
static std::string Discover(const std::vector<std::string> &packages) {
    std::thread sender([&] {
        const UniqueFd sock(socket(AF_INET, SOCK_DGRAM, 0));
        const sockaddr_in to = InternetAddress(htonl(INADDR_LOOPBACK), TQ_CLIENT_PORT);
        usleep(300000);
        for (const std::string &package : packages) {
            sendto(sock.get(), package.data(), package.size(), 0, AsSockaddr(to), sizeof to);
        }
    });
    UnitInfo *list = nullptr;
    const int count = TQ_GetAllUnit("eth0", &list, "nvr", 0);
    const HeapBlock<UnitInfo> owner(list);
    sender.join();
    std::string found = std::to_string(count);
    for (int i = 0; i < count; ++i) {
        found += " "s + list[i].name;
    }
    return found;
}

TEST(Discovery, ListsWhatWasHeardTwiceInDescendingOrder) {
    const auto unit = [](const char *mac, const char *name) {
        return Encode("Moravelle,01,m,NVR,"s + name + ",10.0.0.1,80,255.0.0.0,g,d," + mac +
                      ",eth0,n");
    };
    const std::string low = unit("00:11:22:33:44:55", "low");
    const std::string high = unit("00:11:22:33:44:66", "high");
    const std::string once = unit("00:11:22:33:44:77", "once");
    OutputOf([&] {
        EXPECT_EQ(Discover({low, high, once, "garbage", "", low, high, high, std::string(5000, 'x'),
                            Encode("Moravelle,00,query")}),
                  "2 high low");
        EXPECT_EQ(Discover({once}), "0");
    });
    EXPECT_EQ(OutputOf([] { EXPECT_EQ(Discover({}), "-1"); }), "");

    // Somebody else has the clients' port, and shares it with nobody.
    UniqueFd other;
    sockaddr_in address{};
    ASSERT_EQ(TQ_CreateUDPBroadcastSocket(TQ_CLIENT_PORT, other.address(), &address), 0);
    KeepPortToOneself(other.get());
    EXPECT_SAYS(OutputOf([] { EXPECT_EQ(Discover({}), "-1"); }),
                "(): TQ_CreateUDPBroadcastSocket(6666) failed!\n");
}

TEST(Server, RecognisesItsOwnRecordOnce) {
    SetIdentity();
    UnitInfo own{};
    COM_GetUnitInfo(&own, "eth0");
    UnitInfo package = own;
    strcpy(package.ip, "10.0.0.9");
    strcpy(package.note, "dhcp");
    EXPECT_EQ(TQ_CheckUnitInfo(&own, &package), 0);
    EXPECT_EQ(TQ_CheckUnitInfo(&own, nullptr), -1);
    for (char *field : {package.model, package.proj, package.name, package.trigger_port,
                        package.mac, package.dev}) {
        const char kept = field[0];
        field[0] ^= 0x20;
        EXPECT_EQ(TQ_CheckUnitInfo(&own, &package), -1);
        field[0] = kept;
    }
    // Every further filling lets the identity grow, also that of a field which is full.
    WriteFile("/etc/Model", std::string(31, 'm'));
    UnitInfo full{};
    COM_GetUnitInfo(&full, "eth0");
    package = full;
    COM_GetUnitInfo(&full, "eth0");
    EXPECT_EQ(TQ_CheckUnitInfo(&full, &package), -1);
}

TEST(Setup, IsBroadcastOnAnInterfaceWithAnAddress) {
    UnitInfo info{};
    EXPECT_EQ(TQ_SendNetworkSetupPkg("eth0", 6666, &info), 0);
    OutputOf([&] { EXPECT_EQ(TQ_SendNetworkSetupPkg("none", 6666, &info), -1); });
}
