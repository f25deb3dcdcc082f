// A setup by KIRVEX: files, reply, restart, in this order or not at all.
#include "kirvex/set_basic_info.h"

#include "kirvex/account.h"
#include "kirvex/search.h"
#include "kirvex/support.h"

// Bytes as what takes so many of them.
template <size_t kSize>
static std::span<const uint8_t, kSize> View(const std::string &bytes) {
    return std::span<const uint8_t, kSize>(reinterpret_cast<const uint8_t *>(bytes.data()), kSize);
}

static const std::string kInterfaces =
    "# lan\nauto eth0\niface eth0 inet dhcp\n  hostname old\n\nauto eth1\niface eth1 inet manual\n";
static const std::string kResolver = "search lan\nNameServer 10.0.0.1\nnameserver 10.0.0.2\n";

TEST(KirvexSetBasicInfo, RewritesFilesAndRestartsTheNetwork) {
    enum Outcome { kRefused, kFailed, kDone };
    const auto with = [](const std::string &stanza) {
        return "# lan\nauto eth0\niface eth0 inet " + stanza +
               "\nauto eth1\niface eth1 inet manual\n";
    };
    const std::string address = "static\n  address 192.168.1.44\n  netmask 255.255.255.0\n";
    const std::string fixed = with(address + "  gateway 192.168.1.1\n");
    const std::string dhcp = with("dhcp\n  hostname QVR-7140-16T\n");
    const std::string resolver = "search lan\nnameserver 10.0.0.9\nnameserver 10.0.0.2\n";
    const std::string zeros(4060, '0');
    const struct {
        const char *scheme, *account, *name, *gateway;  // no gateway: DHCP
        std::string prepare;
        Outcome outcome;
        int error;
        std::string interfaces, resolver, message = "";
    } cases[] = {
        {"basic", "admin", "", "192.168.1.1", "", kDone, 0, fixed, resolver},
        {"digest", "admin", "QVR-7140-16T", "10.0.0.1", "", kDone, 0, with(address), resolver,
         "KIRVEX_NetWorkSetup(): Skip invalid gateway - [10.0.0.1]\n"},
        {"digest", "admin", "QVR", "", "", kDone, 0, dhcp, kResolver},
        {"basic", "admin", "", "", "echo auto >/mtd1/interfaces", kDone, 0, "auto\n", kResolver},
        {"basic", "admin", "", "192.168.1.1", "echo >/etc/resolv.conf", kFailed, 0, kInterfaces,
         "\n"},
        {"basic", "admin", "", "192.168.1.1", "rm /etc/resolv.conf", kFailed, 0, kInterfaces, ""},
        {"basic", "admin", "", "192.168.1.1", "rm /etc/resolv.conf; mkdir /etc/resolv.conf", kDone,
         0, fixed, "", "fopen(/etc/resolv.conf) failed : Is a directory\n"},
        {"basic", "admin", "", "", "rm /mtd1/interfaces", kFailed, 0, "", kResolver,
         "KIRVEX_NetWorkSetup(): fopen(/mtd1/interfaces) failed : No such file or directory\n"},
        {"basic", "admin", "", "", "mount --bind -r /mtd1 /mtd1", kFailed, 0, kInterfaces,
         kResolver,
         "KIRVEX_NetWorkSetup(): fopen(/mtd1/interfaces) failed : Read-only file system\n"},
        {"basic", "admin", "", "192.168.1.1",
         "mount -t tmpfs -o size=4k t /mtd1; printf '%04060d\niface eth0\n' 0 >/mtd1/interfaces",
         kFailed, 0, (zeros + "\niface eth0 inet static\n  address 192.").substr(0, 4096),
         resolver},
        {"basic", "admin", "QVR-7140-16TX", "", "", kRefused, 1, kInterfaces, kResolver},
        {"basic", "administrator", "", "", "", kRefused, 0, kInterfaces, kResolver,
         "KIRVEX_Reply_SetBasicInfo(): break connection failed - ip[127.0.0.1] "
         "kickArg[ITSELF&THREAD_ID=]\n"},
        {"basic", "Admin", "", "", "", kRefused, 0, kInterfaces, kResolver},
    };
    WriteFile("/etc/init.d/networking", "#!/bin/sh\nsleep 0.3; echo \"$0 $*\" >>/tmp/restart\n");
    Shell("chmod +x /etc/init.d/networking; ln -s /bin/busybox /tmp/udhcpc");
    const Server server;
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.account) + ":" + row.name + ":" + row.prepare);
        Shell("rm -rf /etc/resolv.conf /tmp/restart");
        WriteFile("/mtd1/interfaces", kInterfaces);
        WriteFile("/etc/resolv.conf", kResolver);
        WriteFile(kServerLog, "");
        Shell(":;" + row.prepare);
        AccountPages web(row.scheme);
        Child dhcpClient("/dev/null", [] {
            dup2(STDOUT_FILENO, STDERR_FILENO);
            execl("/tmp/udhcpc", "udhcpc", "-f", "-i", "eth0", "-s", "/bin/true", nullptr);
        });
        const bool done = row.outcome == kDone;
        const std::string request =
            Header(0xA2) + Credentials({row.account, "1234"}) + Settings(row.name, row.gateway);
        EXPECT_EQ(Ask(request, [] { EXPECT_NE(access("/tmp/restart", F_OK), 0) << "too early"; }),
                  StatusReply(0xA2, row.outcome == kRefused, row.error, done * 2, done * 3));
        web.Stop();
        EXPECT_EQ(ReadFile("/tmp/restart"), done ? "/etc/init.d/networking restart eth0\n" : "");
        EXPECT_EQ(dhcpClient.alive(), !done || !*row.gateway);
        EXPECT_EQ(ReadFile("/mtd1/interfaces"), row.interfaces);
        EXPECT_EQ(ReadFile("/etc/resolv.conf"), row.resolver);
        EXPECT_SAYS(ReadFile(kServerLog), row.message);
        const std::string log = ReadFile(kPages + "log");
        EXPECT_EQ(log.empty(), row.account == "Admin"s);
        EXPECT_EQ(Holds(log, "THREAD_ID=4711"), row.account == "admin"s);
        EXPECT_EQ(ListFolder(kPages + "session /tmp/TQ_* /var/COM_* 2>/dev/null"), "");
        Shell("umount -q /mtd1; true");
    }
}

TEST(KirvexSetBasicInfo, LeavesTheHostNameOutForNobody) {
    WriteFile("/mtd1/interfaces", "iface eth01 inet static\n");
    const std::string settings = Settings("(none)", "");
    EXPECT_EQ(KIRVEX_NetWorkSetup("eth0", View<kx::kSettingsSize>(settings)), 0);
    EXPECT_EQ(ReadFile("/mtd1/interfaces"), "iface eth0 inet dhcp\n");
}

TEST(KirvexSetBasicInfo, RestartsNothingWhenTheReplyCannotBeSent) {
    WriteFile("/mtd1/interfaces", kInterfaces);
    WriteFile("/etc/Port", "8080\n");
    Shell("rm -f /tmp/restart");
    const AccountPages web("basic");
    const std::string request = Field(
        Header(0xA2) + Credentials({"admin", "1234"}) + Settings("QVR", ""), kx::kReceiveSize);
    for (const auto reply :
         {KIRVEX_Reply_SetBasicInfo, KIRVEX_Reply_DevSearch, KIRVEX_Reply_QuerySupportedOptFns,
          KIRVEX_Reply_UserVerification, KIRVEX_Reply_ChangeIDPwd}) {
        const std::string output = OutputOf(
            [&] { EXPECT_EQ(reply("eth0", -1, {}, View<kx::kReceiveSize>(request)), -1); });
        EXPECT_SAYS(output, "(): sendto error: Bad file descriptor\n");
    }
    EXPECT_SAYS(ReadFile("/mtd1/interfaces"), "iface eth0 inet dhcp\n  hostname QVR-7140");
    EXPECT_NE(access("/tmp/restart", F_OK), 0);
}
