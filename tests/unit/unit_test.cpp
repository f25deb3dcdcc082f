#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "common/address.h"
#include "common/first_line.h"
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
    } kCases[] = {{"QVR-7140-16T\n", 0, "QVR-7140-16T"},
                  {"QVR-7140-16T\r\nmore", 0, "QVR-7140-16T"},
                  {" kept \n", 0, " kept "},
                  {Long(40), 0, Long(31)},
                  {"", -1, "unknown"},
                  {"\nsecond", 0, ""},
                  {std::string(1000, '\0'), 0, ""},
                  {Long(10 << 20), 0, Long(31)},
                  // Each further block of 255 bytes adds its text up to its first line end.
                  {"a\n" + Long(253, 'x') + "b\n" + Long(253, 'y') + "c\n", 0, "abc"}};
    for (const auto &c : kCases) {
        WriteFile("/etc/Model", c.text);
        char value[32] = "";
        EXPECT_EQ(c.result, COM_GetModelName(value, sizeof value));
        EXPECT_EQ(c.value, value);
    }
}

TEST(Identity, HasItsFailureValuesAndMessages) {
    Shell("rm -rf /etc/Model /etc/Port; mkdir /etc/Model");
    char value[8] = "before";
    EXPECT_EQ("", OutputOf([&] { EXPECT_EQ(-1, COM_GetModelName(value, sizeof value)); }));
    EXPECT_STREQ("unknown", value);
    EXPECT_EQ("", OutputOf([&] { EXPECT_EQ(-1, COM_GetTriggerPort(value, sizeof value)); }));
    EXPECT_STREQ("80", value);
    char narrow[4] = "";
    EXPECT_EQ(-1, COM_GetModelName(narrow, sizeof narrow));
    EXPECT_STREQ("unk", narrow);
    Shell("rm -r /etc/Model; ln -s Model /etc/Model");
    EXPECT_NE(std::string::npos,
              OutputOf([&] {
                  COM_GetModelName(value, sizeof value);
              }).find("COM_GetFileContent(): open(/etc/Model) error : Too many levels"));
    EXPECT_NE(std::string::npos, OutputOf([&] {
                                     EXPECT_EQ(-1, COM_GetFileContent("/x", value, 0));
                                 }).find("input error : (pFileName, pBuf, len) = ("));
    strcpy(value, "before");
    OutputOf([&] { EXPECT_EQ(-1, COM_GetFileContent(nullptr, value, sizeof value)); });
    EXPECT_STREQ("unknown", value);
    Shell("rm /etc/Model; mkfifo /etc/Model");
    EXPECT_EQ(-1, COM_GetModelName(value, sizeof value));
    Shell("rm /etc/Model");
}

TEST(Identity, AppendsToWhatTheBufferHoldsAndStaysInside) {
    WriteFile("/etc/Model", "0123456789");
    char value[16] = "abcd";
    EXPECT_EQ(0, COM_GetModelName(value, sizeof value));
    EXPECT_EQ(0, COM_GetModelName(value, sizeof value));
    EXPECT_STREQ("abcd01234567890", value);
    char all[17];
    memset(all, 'x', sizeof all);
    EXPECT_EQ(0, COM_GetModelName(all, sizeof all - 1));
    EXPECT_EQ('\0', all[15]);
    EXPECT_EQ('x', all[16]);
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
            EXPECT_EQ(Long(length > 31 ? 31 : length), record->model);
            for (int i = 0; i < 25000; ++i) {
                COM_GetUnitInfo(record, i == 3 ? "none" : "eth0");
            }
        });
        EXPECT_STRNE(Long(length > 31 ? 31 : length).c_str(), record->model);
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
    EXPECT_EQ(0, COM_GetUnitInfo(&record, nullptr));
    EXPECT_STREQ("unknown", record.note);
    EXPECT_STREQ("192.168.1.20", record.ip);
    EXPECT_EQ(1500, record.mtu);
    Shell("rm /etc/Port; ip route del default");
    record = {};
    EXPECT_EQ(-2, COM_GetUnitInfo(&record, "eth0"));
    EXPECT_STREQ("80", record.trigger_port);
    EXPECT_STREQ("000.000.000.000", record.gateway);
    EXPECT_EQ("", OutputOf([] { COM_ShowAllUnitInfo(0, nullptr); }));
    const std::string shown = OutputOf([&] { COM_ShowAllUnitInfo(1, &record); });
    EXPECT_EQ(shown.find("[1/1]\nCOMMON,"), 0u) << shown;
    EXPECT_NE(std::string::npos, shown.find(": (ip, trigger_port, netmask) = (192.168.1.20, 80, "
                                            "255.255.255.0)\n"));
}

TEST(NetInfo, GivesEveryFactInEveryForm) {
    Shell(
        "ip route add default via 192.168.1.1 && ip neigh replace 192.168.1.77 lladdr "
        "0a:1b:2c:3d:4e:5f dev eth0");
    WriteFile("/etc/resolv.conf", "#nameserver 10.0.0.1\nnameserver\t10.0.0.2 x\n");
    const std::string zero(1, '\0');
    const struct {
        int selector;
        std::string value;  // texts with their terminators
    } kCases[] = {
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
    for (const auto &c : kCases) {
        // An address text may use all of its 16 bytes.
        const size_t used = c.selector < 20 ? c.value.size() : std::max(c.value.size(), size_t{16});
        std::string output(used + 4, '#');
        int result = 0;
        OutputOf([&] {
            const bool arp = c.selector >= 11 && c.selector <= 19;
            // Routes and name servers are the machine's, whatever the interface.
            const char *device = c.selector >= 29 && c.selector <= 37 ? "lo" : "eth0";
            result = COM_GetNetInfo(c.selector, arp ? "192.168.1.77" : device, output.data());
        });
        EXPECT_EQ(c.value + "####", output.substr(0, c.value.size()) + output.substr(used))
            << c.selector;
        const bool found =
            (c.selector >= 0 && c.selector <= 10) || (c.selector >= 20 && c.selector <= 38);
        EXPECT_EQ(found ? 0 : -1, result) << c.selector;
    }
    int32_t mtu = 0;
    EXPECT_EQ(0, COM_GetNetInfo(NETINFO_MTU, "eth0", &mtu));
    EXPECT_EQ(1500, mtu);
    Shell("ip route del default");
}

TEST(NetInfo, HasItsFailureValues) {
    Shell("rm -f /etc/resolv.conf; ip link add eth7 type veth peer name lan7");
    const std::string zero(1, '\0');
    const struct {
        int selector;
        const char *device;
        std::string value, message;
    } kCases[] = {
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
    for (const auto &c : kCases) {
        std::string output(c.value.size() + 4, '#');
        const std::string printed =
            OutputOf([&] { EXPECT_EQ(-1, COM_GetNetInfo(c.selector, c.device, output.data())); });
        EXPECT_EQ(c.value + "####", output) << c.selector;
        ExpectSaid(c.message, printed);
    }
    Shell("ip link del eth7");
}

TEST(NetInfo, CutsANameServerToItsFieldAndCountsEveryLine) {
    const struct {
        std::string file;
        int selector, result;
        std::string value;
    } kCases[] = {
        {"nameserver 2001:db8:85a3::8a2e:370:7334\n", 32, 0, "2001:db8:85a3::"},
        {"nameserver " + Long(200, 'w') + "\n", 32, 0, Long(15, 'w')},
        {"nameserver\nnameserver 10.0.0.9\n", 32, -1, "000.000.000.000"},
        {"nameserver 10.0.0.1", 34, -1, "000.000.000.000"},
        {"my nameserver 10.0.0.1\r\nnameserver 10.0.0.2\r\n", 35, 0, "010.000.000.002"},
        {"nameserver word\n", 33, 0, "000.000.000.000"},
    };
    for (const auto &c : kCases) {
        WriteFile("/etc/resolv.conf", c.file);
        char value[16];
        EXPECT_EQ(c.result, COM_GetNetInfo(c.selector, "eth0", value));
        EXPECT_EQ(c.value, value);
    }
    for (const char *endless : {"ln -sf /dev/zero", "rm /etc/resolv.conf; mkfifo"}) {
        char value[16];
        Shell(std::string(endless) + " /etc/resolv.conf");
        EXPECT_EQ(-1, COM_GetNetInfo(NETINFO_DNS1_STR, "eth0", value));
    }
    Shell("rm /etc/resolv.conf");
}

TEST(NetInfo, MapsDeviceNames) {
    const struct {
        std::string interfaces;
        const char *device;
    } kCases[] = {{"auto eth0\n", "eth0"},
                  {"auto lo\nauto eth0\n", "ppp0"},
                  {"iface x\n", "eth0"},
                  {"# autonomous\n", "ppp0"}};
    Shell("mkdir -p /etc/network");
    for (const auto &c : kCases) {
        WriteFile("/etc/network/interfaces", c.interfaces);
        EXPECT_STREQ(c.device, COM_ConvertNetDevName("auto"));
    }
    EXPECT_STREQ("eth0", COM_ConvertNetDevName(nullptr));
    for (const char *same : {"1.2.3.4", "eth5", "Auto", ""}) {
        EXPECT_EQ(same, COM_ConvertNetDevName(same));
    }
    Shell("rm /etc/network/interfaces");
    EXPECT_NE(std::string::npos,
              OutputOf([] {
                  EXPECT_STREQ("eth0", COM_ConvertNetDevName("auto"));
              }).find("COM_ConvertNetDevName(): fopen(/etc/network/interfaces) error : No such"));
}

TEST(Interfaces, AreListedInTheKernelsOrder) {
    WriteFile("/tmp/dev", "Inter-| x\n face |y\n    lo: 1\n  eth0.100: 2\nbr-lan:3\n" + Long(300) +
                              "\n a_very_long_interface_name: 1\n:\n");
    NetDeviceName *list = nullptr;
    ASSERT_EQ(5, COM_GetDeviceFromProc(&list, "/tmp/dev"));
    const char *kNames[] = {"lo", "eth0100", "brlan", "averylonginterf", ""};
    for (int i = 0; i < 5; ++i) {
        EXPECT_STREQ(kNames[i], list[i].text);
    }
    NetDeviceName *same = list;
    EXPECT_NE(std::string::npos, OutputOf([&] {
                                     EXPECT_EQ(-1, COM_GetAllNetDevice(&list));
                                 }).find("COM_GetDeviceFromProc(): Warnning!! (*pBuf != NULL)\n"));
    EXPECT_EQ(same, list);
    free(list);
    list = nullptr;
    EXPECT_NE(std::string::npos, OutputOf([&] {
                                     EXPECT_EQ(-1, COM_GetDeviceFromProc(&list, "/none"));
                                 }).find("fopen(/none) error : No such file"));
}

TEST(Interfaces, AnAddressMayBringItsMask) {
    const struct {
        const char *text;
        int result;
        const char *address;
        uint32_t mask;
        const char *message;
    } kCases[] = {
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
    for (const auto &c : kCases) {
        uint32_t address;
        uint32_t mask;
        const std::string output =
            OutputOf([&] { EXPECT_EQ(c.result, COM_ConvertNetworkAddr(c.text, &address, &mask)); });
        EXPECT_EQ(inet_addr(c.address), address) << c.text;
        EXPECT_EQ(c.mask, mask) << c.text;
        ExpectSaid(c.message, output);
    }
}
