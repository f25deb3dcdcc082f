// What a unit says of itself: identity files, network facts, interfaces.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "common/address.h"
#include "common/first_line.h"
#include "common/text_file.h"
#include "support/files.h"
#include "unit/identity.h"
#include "unit/interfaces.h"
#include "unit/net_info.h"
#include "unit/unit_info.h"

static std::string Long(size_t length, char c = 'l') {
    return std::string(length, c);
}

TEST(Identity, IsTheFirstLineOfAFile) {
    const struct {
        std::string text;
        int result;
        std::string value;
    } kRows[] = {{"QVR-7140-16T\n", 0, "QVR-7140-16T"},
                 {"QVR-7140-16T\r\nmore", 0, "QVR-7140-16T"},
                 {" kept \n", 0, " kept "},
                 {Long(40), 0, Long(31)},
                 {"", -1, "unknown"},
                 {"\nsecond", 0, ""},
                 {std::string(1000, '\0'), 0, ""},
                 {Long(10 << 20), 0, Long(31)},
                 // Each further block of 255 bytes adds its text up to its first line end.
                 {"a\n" + Long(253, 'x') + "b\n" + Long(253, 'y') + "c\n", 0, "abc"}};
    for (const auto &row : kRows) {
        WriteFile("/etc/Model", row.text);
        char value[32] = "";
        EXPECT_EQ(COM_GetModelName(value, sizeof value), row.result);
        EXPECT_EQ(value, row.value);
    }
}

TEST(Identity, HasItsFailureValuesAndMessages) {
    const struct {
        const char *change;
        int (*get)(char *, int);
        const char *value, *message;
    } kRows[] = {
        {"rm -rf /etc/Model /etc/Port; mkdir /etc/Model", COM_GetModelName, "unknown", ""},
        {"true", COM_GetTriggerPort, "80", ""},
        {"rm -r /etc/Model; ln -s Model /etc/Model", COM_GetModelName, "unknown",
         "COM_GetFileContent(): open(/etc/Model) error : Too many levels"},
        {"rm /etc/Model; mkfifo /etc/Model", COM_GetModelName, "unknown", ""},
        {"rm /etc/Model", [](char *, int) { return COM_GetFileContent("/x", nullptr, 8); }, "",
         "input error : (pFileName, pBuf, len) = ("},
        {"true", [](char *value, int size) { return COM_GetFileContent(nullptr, value, size); },
         "unknown", "input error : (pFileName, pBuf, len) = ("},
        {"true", [](char *value, int) { return COM_GetModelName(value, 4); }, "unk", ""},
    };
    for (const auto &row : kRows) {
        Shell(row.change);
        char value[8] = "";
        EXPECT_SAYS(OutputOf([&] { EXPECT_EQ(row.get(value, sizeof value), -1); }), row.message);
        EXPECT_STREQ(value, row.value) << row.change;
    }
}

TEST(Identity, AppendsToWhatTheBufferHoldsAndStaysInside) {
    WriteFile("/etc/Model", "0123456789");
    char value[16] = "abcd";
    EXPECT_EQ(COM_GetModelName(value, sizeof value), 0);
    EXPECT_EQ(COM_GetModelName(value, sizeof value), 0);
    EXPECT_STREQ(value, "abcd01234567890");
    char all[17];
    memset(all, 'x', sizeof all);
    EXPECT_EQ(COM_GetModelName(all, sizeof all - 1), 0);
    EXPECT_EQ(all[15], '\0');
    EXPECT_EQ(all[16], 'x');
}

TEST(UnitInfo, GrowsWithEveryFillingButNeverPastItsEnd) {
    for (const size_t length : {1, 31, 32, 400}) {
        for (const char *file : {"Model", "Proj", "Port", "Note"}) {
            WriteFile(std::string("/etc/") + file, Long(length));
        }
        // On the heap, where a byte too far is caught.
        UnitInfo *record = static_cast<UnitInfo *>(calloc(1, sizeof(UnitInfo)));
        OutputOf([&] {
            COM_GetUnitInfo(record, "eth0");
            EXPECT_EQ(record->model, Long(length > 31 ? 31 : length));
            for (int i = 0; i < 25000; ++i) {
                COM_GetUnitInfo(record, i == 3 ? "none" : "eth0");
            }
        });
        EXPECT_STRNE(record->model, Long(length > 31 ? 31 : length).c_str());
        free(record);
    }
    Shell("rm /etc/Model /etc/Proj /etc/Port /etc/Note");
}

TEST(UnitInfo, CountsItsFailures) {
    Shell("ip route add default via 192.168.1.1");
    WriteFile("/etc/resolv.conf", "nameserver 10.0.0.1\n");
    for (const char *file : {"Model", "Proj", "Port"}) {
        WriteFile(std::string("/etc/") + file, "x");
    }
    UnitInfo record{};
    EXPECT_EQ(COM_GetUnitInfo(&record, nullptr), 0);
    EXPECT_STREQ(record.note, "unknown");
    EXPECT_STREQ(record.ip, "192.168.1.20");
    EXPECT_EQ(record.mtu, 1500);
    Shell("rm /etc/Port; ip route del default");
    record = {};
    EXPECT_EQ(COM_GetUnitInfo(&record, "eth0"), -2);
    EXPECT_STREQ(record.trigger_port, "80");
    EXPECT_STREQ(record.gateway, "000.000.000.000");
    EXPECT_SAYS(OutputOf([] { COM_ShowAllUnitInfo(0, nullptr); }), "");
    const std::string shown = OutputOf([&] { COM_ShowAllUnitInfo(1, &record); });
    EXPECT_TRUE(shown.starts_with("[1/1]\nCOMMON,")) << shown;
    EXPECT_SAYS(shown, ": (ip, trigger_port, netmask) = (192.168.1.20, 80, 255.255.255.0)\n");
}

TEST(NetInfo, GivesEveryFactInEveryForm) {
    Shell(
        "ip route add 0.0.0.0/1 via 192.168.1.9 && ip route add default via 192.168.1.1 && "
        "ip neigh replace 192.168.1.77 lladdr 0a:1b:2c:3d:4e:5f dev eth0");
    WriteFile("/etc/resolv.conf", "#nameserver 10.0.0.1\nnameserver\t10.0.0.2 x\n");
    const std::string zero(1, '\0');
    const struct {
        int selector;
        std::string value;  // texts with their terminators
    } kRows[] = {
        {0, "02005E005301" + zero},
        {1, "02005e005301" + zero},
        {2, "5E005301" + zero},
        {3, "005301" + zero},
        {4, "02:00:5E:00:53:01" + zero},
        {5, "5E:00" + zero + "53" + zero + "01" + zero},
        {6, "00" + zero + "53" + zero + "01" + zero},
        {7, std::string("\x02\x00\x5e\x00\x53\x01", 6)},
        {8, std::string("\x5e\x00\x53\x01", 4)},
        {9, std::string("\x00\x53\x01", 3)},
        {10, std::string("\x53\x01", 2)},
        {11, "0A1B2C3D4E5F" + zero},
        {12, "0a1b2c3d4e5f" + zero},
        {13, "2C3D4E5F" + zero},
        {14, "3D4E5F" + zero},
        {15, "0A:1B:2C:3D:4E:5F" + zero},
        {16, "2C:3D" + zero + "4E" + zero + "5F" + zero},
        {17, "3D" + zero + "4E" + zero + "5F" + zero},
        {18, "\x3d\x4e\x5f"},
        {19, "\x4e\x5f"},
        {20, "192.168.1.20" + zero},
        {21, "192.168.001.020" + zero},
        {22, "\xc0\xa8\x01\x14"},
        {23, "192.168.1.255" + zero},
        {24, "192.168.001.255" + zero},
        {25, "\xc0\xa8\x01\xff"},
        {26, "255.255.255.0" + zero},
        {27, "255.255.255.000" + zero},
        {28, std::string("\xff\xff\xff\x00", 4)},
        {29, "192.168.1.1" + zero},
        {30, "192.168.001.001" + zero},
        {31, "\xc0\xa8\x01\x01"},
        {32, "10.0.0.1" + zero},
        {33, "010.000.000.001" + zero},
        {34, "10.0.0.2" + zero},
        {35, "010.000.000.002" + zero},
        {36, std::string("\x0a\x00\x00\x01", 4)},
        {37, std::string("\x0a\x00\x00\x02", 4)},
        {39, "unknown" + zero},
        {-1, "unknown" + zero},
    };
    for (const auto &row : kRows) {
        // An address text may use all of its 16 bytes.
        const size_t used =
            row.selector < 20 ? row.value.size() : std::max(row.value.size(), size_t{16});
        std::string output(used + 4, '#');
        int result = 0;
        OutputOf([&] {
            const bool arp = row.selector >= 11 && row.selector <= 19;
            // Routes and name servers are the machine's, whatever the interface.
            const char *device = row.selector >= 29 && row.selector <= 37 ? "lo" : "eth0";
            result = COM_GetNetInfo(row.selector, arp ? "192.168.1.77" : device, output.data());
        });
        EXPECT_EQ(output.substr(0, row.value.size()) + output.substr(used), row.value + "####")
            << row.selector;
        const bool found =
            (row.selector >= 0 && row.selector <= 10) || (row.selector >= 20 && row.selector <= 38);
        EXPECT_EQ(result, found ? 0 : -1) << row.selector;
    }
    int32_t mtu = 0;
    EXPECT_EQ(COM_GetNetInfo(NETINFO_MTU, "eth0", &mtu), 0);
    EXPECT_EQ(mtu, 1500);
    char mac[18];
    COM_GetNetInfo(NETINFO_ARP_MAC_COLON, "192.168.1.7", mac);
    EXPECT_STREQ(mac, "00:00:00:00:00:00") << "of an address that another one begins with";
    Shell("ip route del default && ip route del 0.0.0.0/1");
}

TEST(NetInfo, AKeptTableShowsWhatHoldsNow) {
    const auto gateway = [] {
        char text[16];
        COM_GetNetInfo(NETINFO_GATEWAY_STR, "eth0", text);
        return std::string(text);
    };
    const auto interfaces = [] {
        NetDeviceName *names = nullptr;
        const int count = COM_GetAllNetDevice(&names);
        free(names);
        return count;
    };
    const int before = interfaces();
    KeptTables tables;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(gateway(), kNoAddressText);
        Shell("ip route add default via 192.168.1.1 && ip link add eth7 type veth peer name lan7");
        EXPECT_EQ(gateway(), "192.168.1.1");
        EXPECT_EQ(interfaces(), before + 2);
        Shell("ip route replace default via 192.168.1.9 && ip link del eth7");
        EXPECT_EQ(gateway(), "192.168.1.9");
        EXPECT_EQ(interfaces(), before);
        Shell("ip route del default");
        EXPECT_TRUE(tables);
        tables.Close();
        EXPECT_FALSE(tables);
    }
}

TEST(NetInfo, HasItsFailureValues) {
    Shell("rm -f /etc/resolv.conf; ip link add eth7 type veth peer name lan7");
    const std::string zero(1, '\0');
    const struct {
        int selector;
        const char *device;
        std::string value, message;
    } kRows[] = {
        {0, "none", "000000000000" + zero, "COM_GetMAC(): ioctl() error : No such device\n"},
        {4, "none", "00:00:00:00:00:00" + zero, "COM_GetMAC(): ioctl() error"},
        {7, "none", std::string(6, '\0'), "COM_GetMAC(): ioctl() error"},
        {15, "10.9.9.9", "00:00:00:00:00:00" + zero, ""},
        {20, "none", "000.000.000.000" + zero, "COM_SubGetNetInfo(): ioctl(35093:none) error : No"},
        {20, "eth7", "000.000.000.000" + zero, ""},
        {22, "eth7", std::string(4, '\0'), ""},
        {29, "eth0", "000.000.000.000" + zero, ""},
        {31, "eth0", std::string(4, '\0'), ""},
        {32, "eth0", "000.000.000.000" + zero, ""},
        {37, "eth0", std::string(4, '\0'), ""},
        {38, "none", "", "COM_GetMTU(): ioctl() error : No such device\n"},
        {39, "eth0", "unknown" + zero, "COM_GetNetInfo(): flag(39) not implemented yet.\n"},
    };
    for (const auto &row : kRows) {
        std::string output(row.value.size() + 4, '#');
        const std::string printed = OutputOf(
            [&] { EXPECT_EQ(COM_GetNetInfo(row.selector, row.device, output.data()), -1); });
        EXPECT_EQ(output, row.value + "####") << row.selector;
        EXPECT_SAYS(printed, row.message);
    }
    Shell("ip link del eth7");
}

TEST(NetInfo, CutsANameServerToItsFieldAndCountsEveryLine) {
    const struct {
        std::string file;
        int selector, result;
        std::string value;
    } kRows[] = {
        {"nameserver 2001:db8:85a3::8a2e:370:7334\n", 32, 0, "2001:db8:85a3::"},
        {"nameserver " + Long(200, 'w') + "\n", 32, 0, Long(15, 'w')},
        {"nameserver\nnameserver 10.0.0.9\n", 32, -1, "000.000.000.000"},
        {"nameserver 10.0.0.1", 34, -1, "000.000.000.000"},
        {"my nameserver 10.0.0.1\r\nnameserver 10.0.0.2\r\n", 35, 0, "010.000.000.002"},
        {"nameserver word\n", 33, 0, "000.000.000.000"},
        // A line across two blocks of the reader, and one that holds a zero byte.
        {Long(1018, '#') + "\nnameserver 10.0.0.7\n", 32, 0, "10.0.0.7"},
        {std::string("a\0nameserver 10.0.0.1\n", 22) + "nameserver 10.0.0.8\n", 32, 0, "10.0.0.8"},
    };
    for (const auto &row : kRows) {
        WriteFile("/etc/resolv.conf", row.file);
        char value[16];
        EXPECT_EQ(COM_GetNetInfo(row.selector, "eth0", value), row.result);
        EXPECT_EQ(value, row.value);
    }
    for (const char *endless : {"ln -sf /dev/zero", "rm /etc/resolv.conf; mkfifo"}) {
        char value[16];
        Shell(std::string(endless) + " /etc/resolv.conf");
        EXPECT_EQ(COM_GetNetInfo(NETINFO_DNS1_STR, "eth0", value), -1);
    }
    Shell("rm /etc/resolv.conf");
}

TEST(NetInfo, MapsDeviceNames) {
    const struct {
        std::string interfaces;
        const char *device;
    } kRows[] = {{"auto eth0\n", "eth0"},
                 {"auto lo\nauto eth0\n", "ppp0"},
                 {"iface x\n", "eth0"},
                 {"# autonomous\n", "ppp0"}};
    Shell("mkdir -p /etc/network");
    for (const auto &row : kRows) {
        WriteFile("/etc/network/interfaces", row.interfaces);
        EXPECT_STREQ(COM_ConvertNetDevName("auto"), row.device);
    }
    EXPECT_STREQ(COM_ConvertNetDevName(nullptr), "eth0");
    for (const char *same : {"1.2.3.4", "eth5", "Auto", ""}) {
        EXPECT_EQ(COM_ConvertNetDevName(same), same);
    }
    Shell("rm /etc/network/interfaces");
    EXPECT_SAYS(OutputOf([] { EXPECT_STREQ(COM_ConvertNetDevName("auto"), "eth0"); }),
                "COM_ConvertNetDevName(): fopen(/etc/network/interfaces) error : No such");
}

TEST(Interfaces, AreListedInTheKernelsOrder) {
    WriteFile("/tmp/dev", "Inter-| x\n face |y\n    lo: 1\n  eth0.100: 2\nbr-lan:3\n" + Long(300) +
                              "\n a_very_long_interface_name: 1\n:\n");
    NetDeviceName *list = nullptr;
    ASSERT_EQ(COM_GetDeviceFromProc(&list, "/tmp/dev"), 5);
    const char *kNames[] = {"lo", "eth0100", "brlan", "averylonginterf", ""};
    for (int i = 0; i < 5; ++i) {
        EXPECT_STREQ(list[i].text, kNames[i]);
    }
    NetDeviceName *same = list;
    EXPECT_SAYS(OutputOf([&] { EXPECT_EQ(COM_GetAllNetDevice(&list), -1); }),
                "COM_GetDeviceFromProc(): Warnning!! (*pBuf != NULL)\n");
    EXPECT_EQ(list, same);
    free(list);
    list = nullptr;
    EXPECT_SAYS(OutputOf([&] { EXPECT_EQ(COM_GetDeviceFromProc(&list, "/none"), -1); }),
                "fopen(/none) error : No such file");
}

TEST(Interfaces, AnAddressMayBringItsMask) {
    const struct {
        const char *text;
        int result;
        const char *address;
        uint32_t mask;
        const char *message;
    } kRows[] = {
        {"192.168.1.20/255.255.255.0", 0, "192.168.1.20", htonl(0xFFFFFF00), ""},
        {"192.168.1.20", 0, "192.168.1.20", 0xFFFFFFFF, ""},
        {" 10.1 / 0 /9", 0, "10.0.0.1", 0, ""},
        {"10.0.0.1/24", 0, "10.0.0.1", 0x00FFFFFF, ""},
        {"10.0.0.1/32", 0, "10.0.0.1", 0xFFFFFFFF, ""},
        {"10.0.0.1/33", 0, "10.0.0.1", 0xFFFFFFFF, "offset : (33, 33) : isn't resonable\n"},
        {"10.0.0.1/1.2.3.999", 0, "10.0.0.1", 0xFFFFFFFF, "[1.2.3.999] is not a valid netmask\n"},
        {"300.1.1.1/24", -1, "0.0.0.0", 0xFFFFFFFF,
         ": [300.1.1.1/24][300.1.1.1] is not a valid ip address\n"},
        {"", -1, "0.0.0.0", 0xFFFFFFFF, ""},
        {"///", -1, "0.0.0.0", 0xFFFFFFFF, ""},
    };
    for (const auto &row : kRows) {
        uint32_t address;
        uint32_t mask;
        const std::string output = OutputOf(
            [&] { EXPECT_EQ(COM_ConvertNetworkAddr(row.text, &address, &mask), row.result); });
        EXPECT_EQ(address, inet_addr(row.address)) << row.text;
        EXPECT_EQ(mask, row.mask) << row.text;
        EXPECT_SAYS(output, row.message);
    }
}
