#include <fcntl.h>
#include <sys/mount.h>

#include <csignal>
#include <functional>
#include <regex>
#include <utility>

#include "common/owners.h"
#include "config/command.h"
#include "config/config_file.h"
#include "config/line_editor.h"
#include "config/network_setup.h"
#include "config/process.h"
#include "config/stanza_editor.h"
#include "config/watchdog.h"
#include "support/files.h"

TEST(ConfigFile, SetsWhatItsLinesSay) {
    const std::string eighty(80, 'n');
    const struct {
        std::string text;
        int netsetup;
        std::string netfile, dnsfile, output;
    } kCases[] = {
        {"netsetup=yes\n", 1, "/n", "/d", "NETSETUP = YES\n"},
        {"NETSETUP=NOYES", 1, "/n", "/d", "NETSETUP = YES\n"},
        {"NETSETUP=NO\n", 0, "/n", "/d", ""},
        {"NETSETUP=YES\nNETSETUP=NO\n", 1, "/n", "/d", "NETSETUP = YES\n"},
        {" NETFILE=\"/x\"\n#NETFILE=\"/x\"\n", 0, "/n", "/d", ""},
        {"NETFILE=\"/x\"\r\n", 0, "/x", "/d", "NETFILE = [/x]\n"},
        {"netfile_old \"/y\" \"/z\"\n", 0, "/y", "/d", "NETFILE = [/y]\n"},
        {"NETFILE=\"\"\n", 0, "", "/d", "NETFILE = []\n"},
        {"NETFILE=\"/x\nDNSFILE=\"/e\"\n", 0, "/n", "/e", "NETFILE = [/n]\n"},
        {"DNSFILE=\"/e\"\nNETFILE=\"" + eighty + "more\"\n", 0, eighty, "",
         "TQ_ParsetCfg(): Warning! overflow (len, size) = (84, 80)\n"},
        {"NETFILE=\"" + eighty + "\"\nDNSFILE=\"/e\"\n", 0, eighty + "/e", "/e",
         "TQ_ParsetCfg(): Warning! overflow (len, size) = (80, 80)\n"},
        {"PWDFILE=\"" + eighty + "\"\n", 0, "/n", "/d", "PWDFILE = [" + eighty + "]\n"},
        {std::string(127, '#') + "NETFILE=\"/x\"\n", 0, "/x", "/d", "NETFILE = [/x]\n"},
        {std::string(1 << 20, '\0'), 0, "/n", "/d", ""},
    };
    for (const auto &c : kCases) {
        WriteFile("/tmp/TQ.conf", c.text);
        TQ_Cfg cfg{};
        cfg.pCfgFile = "/tmp/TQ.conf";
        strcpy(cfg.netfile, "/n");
        strcpy(cfg.dnsfile, "/d");
        const std::string output = OutputOf([&] { EXPECT_EQ(0, TQ_ParsetCfg(&cfg)); });
        EXPECT_EQ(c.netsetup, cfg.netsetup) << c.text;
        EXPECT_EQ(c.netfile, static_cast<const char *>(cfg.netfile)) << c.text;
        EXPECT_EQ(c.dnsfile, static_cast<const char *>(cfg.dnsfile)) << c.text;
        // The first line names the file.
        ExpectSaid(c.output, output.substr(output.find('\n') + 1));
    }
    TQ_Cfg cfg{};
    WriteFile("/tmp/TQ.conf", "netscript=\"/a b\"\nUSERSCRIPT \"/c\"\nDnsFile=\"/e\"\n");
    cfg.pCfgFile = "/tmp/TQ.conf";
    const std::string output = OutputOf([&] { EXPECT_EQ(0, TQ_ParsetCfg(&cfg)); });
    for (const char *line : {"NETSCRIPT = [/a b]\n", "USERSCRIPT = [/c]\n", "DNSFILE = [/e]\n"}) {
        EXPECT_NE(std::string::npos, output.find(std::string("TQ_ParsetCfg(): ") + line)) << output;
    }
    EXPECT_STREQ("/a b", cfg.netscript);
    EXPECT_STREQ("/c", cfg.userscript);
    cfg.pCfgFile = "/none";
    EXPECT_NE(std::string::npos,
              OutputOf([&] {
                  EXPECT_EQ(-1, TQ_ParsetCfg(&cfg));
              }).find("TQ_ParsetCfg(): fopen(/none) error : No such file or directory\n"));
}

// Messages without their source tags and line numbers.
static std::string Shorten(const std::string &output) {
    return std::regex_replace(output, std::regex("(^|\n)\\w+,\\d+:"), "$1");
}

// Sets eth0 to DHCP in an interfaces file, or, without one, the name server in /srv/f.
static int Edit(const char *netfile) {
    if (!netfile) {
        return config::ReplaceNameServer("/srv/f", "2");
    }
    TQ_Cfg cfg{};
    strcpy(cfg.netfile, netfile);
    strcpy(cfg.netscript, "/bin/true");
    UnitInfo request{};
    strcpy(request.dev, "eth0");
    strcpy(request.name, "(none)");
    strcpy(request.note, "dhcp");
    return TQ_SetupNetwork(&cfg, &request);
}

static int Count(const std::string &text, const std::string &part) {
    int count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size() - 1) {
        ++count;
    }
    return count;
}

static COM_ReplaceItem Item(const char *key, const char *line) {
    COM_ReplaceItem item{};
    item.key_len = static_cast<int>(strlen(key));
    strcpy(item.key, key);
    strcpy(item.line, line);
    return item;
}

TEST(LineEditor, ReplacesDeletesAndAppendsWholeLines) {
    const std::string longLine(300, 'l');
    const struct {
        std::string before;
        COM_ReplaceItem first, second;
        int checkOnly, anywhere, append, result;
        std::string after;
    } kCases[] = {
        {"a 1\nb 2\na 3\n", Item("A", "a new"), Item("b", ""), 0, 0, 0, 2, "a new\na 3\n"},
        {"x a\nb", Item("a", "a new"), Item("b", "b new"), 0, 0, 0, 1, "x a\nb new\n"},
        {"x a\nA", Item("a", "a new"), Item("A", "A new"), 0, 1, 0, 2, "a new\nA new\n"},
        {"c\n", Item("a", "a new"), Item("b", ""), 0, 0, 1, 1, "c\na new\n"},
        {"a\nb\n", Item("a", "x"), Item("b", "y"), 1, 0, 0, 2, "a\nb\n"},
        {"a\n", Item("a", "x"), Item("b", "y"), 1, 0, 1, 2, "a\n"},
        {longLine + "\na\r\n", Item("a", "a new"), Item("b", ""), 0, 0, 0, 1,
         longLine + "\na new\n"},
        {"", Item("a", "x"), Item("b", "y"), 0, 0, 0, 0, ""},
        {std::string("b\0c\na\0x\n\0y\n", 11), Item("a", "a new"), Item("b", "z"), 0, 0, 0, 2,
         std::string("z\na new\n\0y\n", 11)},
        {"100% %s %n\n", Item("a", "%s%n"), Item("b", ""), 0, 0, 1, 1, "100% %s %n\n%s%n\n"},
    };
    for (const auto &c : kCases) {
        WriteFile("/tmp/lines", c.before);
        Shell("chmod 640 /tmp/lines");
        COM_ReplaceItem items[] = {c.first, c.second};
        COM_ReplaceItemList list{2, c.checkOnly, c.anywhere, c.append, items};
        EXPECT_EQ("", OutputOf([&] {
                      EXPECT_EQ(c.result, COM_ReplaceItemsInFile("/tmp/lines", &list));
                  }));
        EXPECT_EQ(c.after, ReadFile("/tmp/lines"));
        struct stat status;
        stat("/tmp/lines", &status);
        EXPECT_EQ(0640u, status.st_mode & 0777);
    }
    EXPECT_EQ(0, config::ReplaceNameServer("/tmp/created", "1.2.3.4"));
    EXPECT_EQ("", ReadFile("/tmp/created"));
    EXPECT_EQ(0, access("/tmp/created", F_OK));
}

static constexpr char kInterfaces[] =
    "# head\nauto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet static\n  address "
    "1.1.1.1\n"
    "# gone\n  up x\nauto eth1\niface eth1 inet dhcp\n";

static std::string WithStanza(const std::string &stanza) {
    std::string text = kInterfaces;
    const size_t from = text.find("iface eth0");
    return text.replace(from, text.find("auto eth1") - from, stanza);
}

TEST(NetworkSetup, RewritesTheStanzaAndTheResolver) {
    const std::string kStatic =
        "iface eth0 inet static\n  address 192.168.1.10\n  netmask 255.255.255.0\n";
    const std::string kResolver = "search x\nnameserver 1.1.1.1\nNameServer 2.2.2.2\n";
    const std::string kNewResolver = "search x\nnameserver 9.9.9.9\nNameServer 2.2.2.2\n";
    const std::string crlf =
        "auto eth0\r\niface eth0 inet dhcp\r\n x\r\niface eth0:1 inet dhcp\r\nauto z\r\nlast";
    const struct {
        std::string before, resolver;
        const char *device, *name, *gateway, *method;
        int result;
        std::string after, newResolver, message;
    } kCases[] = {
        {kInterfaces, kResolver, "eth0", "cam1", "", "dhcp", 0,
         WithStanza("iface eth0 inet dhcp\n  hostname cam1\n\n"), kResolver,
         ": \n==\niface eth0 inet dhcp\n  hostname cam1\n\n==\n"},
        {kInterfaces, kResolver, "eth0", "(none)", "", "dhcp", 0,
         WithStanza("iface eth0 inet dhcp\n"), kResolver, "hostname (none)"},
        {kInterfaces, kResolver, "eth0", "n", "192.168.1.1", "static", 0,
         WithStanza(kStatic + "  gateway 192.168.1.1\n\n"), kNewResolver,
         "\n==\n" + kStatic + "  gateway 192.168.1.1\n\n==\n"},
        {kInterfaces, kResolver, "eth0", "n", "10.0.0.1", "static", 0, WithStanza(kStatic + "\n"),
         kNewResolver, "TQ_SetupNetwork(): Skip invalid gateway - [10.0.0.1]\n"},
        {kInterfaces, kResolver, "eth0", "n", "192.168.1.1 ;id", "static", 0,
         WithStanza(kStatic + "\n"), kNewResolver, "Skip invalid gateway - [192.168.1.1 ;id]\n"},
        {kInterfaces, "none\n", "eth0", "n", "10.0.0.1", "static", -1, WithStanza(kStatic + "\n"),
         "none\n", "Skip invalid"},
        {kInterfaces, kResolver, "eth9", "n", "", "static", 0, kInterfaces, kResolver,
         "TQ_SetupNetwork(): Execute : pCfg->netscript = [/tmp/script restart  now]\n"},
        {"", "", "eth9", "n", "", "dhcp", 0, "", "",
         "TQ_SetupNetwork(): Execute : pCfg->userscript = [/tmp/script user]\n"},
        {crlf, kResolver, "eth0", "n", "", "dhcp", 0,
         "auto eth0\r\niface eth0 inet dhcp\n  hostname n\n\niface eth0 inet dhcp\n  hostname n\n\n"
         "auto z\r\nlast",
         kResolver, "==\niface eth0 inet dhcp\n  hostname n\n\n==\n"},
        {"iface\niface eth0\n" + std::string(500, 'x'), "", "eth1", "n", "", "dhcp", 0,
         "iface\niface eth0\n" + std::string(500, 'x'), "", "Execute : pCfg->netscript"},
    };
    Shell("printf '#!/bin/sh\\necho \"$@\" >>/tmp/ran\\n' >/tmp/script; chmod 755 /tmp/script");
    for (const auto &c : kCases) {
        WriteFile("/tmp/interfaces", c.before);
        WriteFile("/tmp/resolver", c.resolver);
        WriteFile("/tmp/ran", "");
        TQ_Cfg cfg{};
        strcpy(cfg.netfile, "/tmp/interfaces");
        strcpy(cfg.dnsfile, "/tmp/resolver");
        strcpy(cfg.netscript, c.before.empty() ? "" : "/tmp/script restart  now");
        strcpy(cfg.userscript, "/tmp/script user");
        UnitInfo request{};
        strcpy(request.dev, c.device);
        strcpy(request.name, c.name);
        strcpy(request.ip, "192.168.1.10");
        strcpy(request.netmask, "255.255.255.0");
        strcpy(request.gateway, c.gateway);
        strcpy(request.dns, "9.9.9.9");
        strcpy(request.note, c.method);
        const std::string output =
            OutputOf([&] { EXPECT_EQ(c.result, TQ_SetupNetwork(&cfg, &request)); });
        EXPECT_EQ(c.after, ReadFile("/tmp/interfaces"));
        EXPECT_EQ(c.newResolver, ReadFile("/tmp/resolver"));
        ExpectSaid(c.message, output);
        const std::string ran = c.before.empty() ? "user\n" : "restart now\nuser\n";
        EXPECT_EQ(c.result == 0 ? ran : "", ReadFile("/tmp/ran"));
        EXPECT_EQ("", ListFolder("-d /tmp/TQ_* 2>/dev/null"));
    }
    EXPECT_EQ(-1, TQ_SetupNetwork(nullptr, nullptr));
}

// What fails names what could not be done, runs nothing, and leaves no temporary file.
TEST(Editors, SayWhatFailsAndKeepWhatTheyCan) {
    const std::string full = "head -c 99999 /dev/zero >full 2>/dev/null; ";
    const std::string kNoSpace = " : No space left on device : ";
    // Each begins in a folder of 8 KB: the files f, interfaces, and tmp and var, which then become
    // /tmp and /var. A file that reads with an error is there as well.
    const struct {
        const char *name;
        std::string before, spoil;
        const char *netfile;  // null: the name server in f is replaced instead
        std::string said, after;
    } kCases[] = {
        {"no such file", "", "", "/srv/none",
         "TQ_SetupNetwork(): fopen(/srv/none) failed : No such file or directory\n", ""},
        {"no temporary file", "", "mount -t tmpfs -o ro t /tmp", "/srv/none", "", ""},
        {"no temporary file", "x\n", "mount -t tmpfs -o ro t /var", nullptr,
         "COM_ReplaceItemsInFile(): mkstemp() failed : Read-only file system\n", ""},
        {"a folder", "x\n", "rm f; mkdir f", nullptr,
         "COM_ReplaceItemsInFile(): fopen(/srv/f) failed : Is a directory\n"
         "COM_ReplaceItemsInFile(): truncate(/srv/f) error : Is a directory\n",
         ""},
        {"unreadable", "x\n", "rm f; ln -s /proc/self/mem f", "/srv/f",
         "TQ_SetupNetwork(): fgets(/srv/f) failed : Input/output error\n", ""},
        {"unreadable", "x\n", "rm f; ln -s /proc/self/mem f", nullptr,
         "COM_ReplaceItemsInFile(): fgets(/srv/f) failed : Input/output error\n", ""},
        {"nobody writes", "x\n", "rm f; mkfifo f", "/srv/f",
         "TQ_SetupNetwork(): fgets(/srv/f) failed : Resource temporarily unavailable\n", ""},
        {"full before a line", "one\niface eth0 x\n",
         "mount -t tmpfs -o size=4k t /tmp; cd /tmp; " + full, "/srv/f",
         "TQ_SetupNetwork(): fprintf() faied" + kNoSpace + "one\n", "one\niface eth0 x\n"},
        {"full before the stanza", "iface eth0 x\n",
         "mount -t tmpfs -o size=4k t /tmp; cd /tmp; " + full, "/srv/f", "", "iface eth0 x\n"},
        {"full before a line", "one\nnameserver\n",
         "mount -t tmpfs -o size=4k t /var; cd /var; " + full, nullptr,
         "COM_ReplaceItemsInFile(): fprintf() fail" + kNoSpace + "one\n", ""},
        {"full before the new line", "nameserver\n",
         "mount -t tmpfs -o size=4k t /var; cd /var; " + full, nullptr,
         "COM_ReplaceItemsInFile(): fprintf() fail" + kNoSpace + "nameserver 2\n", ""},
        {"no room to grow", "iface eth0 x\nauto z\n" + std::string(4060, '#') + "\n0123456789\n",
         full, "/srv/f",
         "TQ_SetupNetwork(): \n==\niface eth0 inet dhcp\n  hostname "
         "(none)\n\n==\nTQ_SetupNetwork(): fprintf() faied" +
             kNoSpace + "0123456789\n",
         "iface eth0 inet dhcp\nauto z\n" + std::string(4060, '#') + "\n0123456"},
        {"no room to grow", "nameserver\n" + std::string(4072, '#') + "\n0123456789\n", full,
         nullptr, "COM_ReplaceItemsInFile(): fprintf() fail" + kNoSpace + "0123456789\n",
         "nameserver 2\n" + std::string(4072, '#') + "\n0123456789"},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.name + c.said);
        Shell("mount -t tmpfs -o size=8k t /srv");
        WriteFile("/srv/f", c.before);
        std::string left = "?";
        EXPECT_EQ(Shorten(OutputOf([&] {
                      Shell("cd /srv; " + c.spoil + " 2>/dev/null || :");
                      EXPECT_EQ(Edit(c.netfile), -1);
                      left = ListFolder("-d /tmp/TQ_* /var/COM_* 2>/dev/null");
                      Shell("umount /tmp /var 2>/dev/null || :");
                  })),
                  c.said);
        if (c.before != "x\n") {
            EXPECT_EQ(ReadFile("/srv/f"), c.after);
        }
        EXPECT_EQ(left, "");
        Shell("umount /srv");
    }
}

// Ended by a signal in the middle, an edit is whole first.
TEST(Editors, AreNotCutShort) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        WriteFile("/tmp/interfaces", "iface eth0 inet static\n");
        WriteFile("/tmp/resolver", "nameserver 1.1.1.1\n");
        const pid_t child = fork();
        if (child == 0) {
            const config::StanzaWriter write = [](int out, void *context) {
                raise(*static_cast<int *>(context));
                return config::ReplaceNameServer("/tmp/resolver", "2") == 1 &&
                               config::WriteDhcpStanza(out, "eth0", nullptr)
                           ? config::StanzaOutcome::kWritten
                           : config::StanzaOutcome::kWriteFailed;
            };
            int number = signal;
            _exit(config::ReplaceStanza({"/tmp/interfaces", "eth0", write, &number, {}, true}));
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, signal);
        EXPECT_EQ(ReadFile("/tmp/interfaces"), "iface eth0 inet dhcp\n");
        EXPECT_EQ(ReadFile("/tmp/resolver"), "nameserver 2\n");
        EXPECT_EQ(ListFolder("-d /tmp/TQ_* /var/COM_* 2>/dev/null"), "");
    }
}

TEST(Command, RunsWithoutAShell) {
    Shell(
        "printf '#!/bin/sh\\nfor a; do echo \"<$a>\"; done >/tmp/args; ls /proc/$$/fd >/tmp/fds; "
        "exit 1\\n'"
        " >/tmp/cmd; chmod 755 /tmp/cmd");
    const UniqueFile leak(fopen("/tmp/cmd", "r"));
    pid_t pid = 7;
    EXPECT_EQ(256, COM_System("/tmp/cmd a  b\tc $HOME;ls ", &pid));
    EXPECT_EQ(0, pid);
    EXPECT_EQ("<a>\n<b\tc>\n<$HOME;ls>\n", ReadFile("/tmp/args"));
    EXPECT_EQ(std::string::npos,
              ReadFile("/tmp/fds").find(std::to_string(fileno(leak.get())) + "\n"));
    const std::string longWord(128, 'w');
    std::string manyWords = "/bin/true";
    for (int i = 0; i < 128; ++i) {
        manyWords += " w";
    }
    const struct {
        std::string command;
        int status;
        std::string message;
    } kCases[] = {
        {"/bin/true", 0, ""},
        {"true", 127 << 8, "COM_ParserCMD(): [true] error : No such file or directory\n"},
        {"", 127 << 8, "[] error : No such file"},
        {"/bin/true " + longWord, 127 << 8, "[/bin/true] error : Argument list too long\n"},
        {manyWords, 127 << 8, "[/bin/true] error : Argument list too long\n"}};
    for (const auto &c : kCases) {
        const std::string output =
            OutputOf([&] { EXPECT_EQ(c.status, COM_System(c.command.c_str(), nullptr)); });
        ExpectSaid(c.message, output);
    }
    EXPECT_NE(std::string::npos, OutputOf([] {
                                     EXPECT_EQ(-1, COM_System(nullptr, nullptr));
                                 }).find("COM_System(): pCMD == NULL\n"));
    // Ignored by the daemon, but not by its commands.
    config::SetTerminalSignals(SIG_IGN);
    for (const int signal : {SIGTERM, SIGHUP, SIGPIPE}) {
        WriteFile("/tmp/ended", "kill -" + std::to_string(signal) + " $$\n");
        EXPECT_EQ(COM_System("/bin/sh /tmp/ended", nullptr), signal);
    }
    config::SetTerminalSignals(SIG_DFL);
}

// A process whose command line begins with `name`.
static pid_t StartDecoy(const char *name) {
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/sleep", name, "100", static_cast<char *>(nullptr));
        _exit(1);
    }
    usleep(100000);
    return child;
}

// The signal that ended a process; 0 when it goes on, and then it is ended here.
static int EndOf(pid_t child) {
    int status = 0;
    usleep(50000);
    if (waitpid(child, &status, WNOHANG) == 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return 0;
    }
    return WTERMSIG(status);
}

TEST(Process, SignalsByNameHitTheRightOneAmongDecoys) {
    const pid_t dhcp = StartDecoy("/sbin/udhcpc");
    const pid_t second = StartDecoy("udhcpc6");
    const pid_t kept = StartDecoy("udhcpc-eth0");
    const pid_t other = StartDecoy("dhcp");
    const std::string quiet =
        OutputOf([] { EXPECT_EQ(-1, COM_KillProcbyName("udhcpc", nullptr)); });
    EXPECT_NE(std::string::npos, quiet.find("COM_KillProcbyName(): isKill[0] Invalid pid["))
        << quiet;
    const std::string output =
        OutputOf([] { EXPECT_EQ(0, COM_KillProcbyName("udhcpc", "eth0", nullptr)); });
    EXPECT_NE(std::string::npos,
              output.find("isKill[0] Invalid pid[" + std::to_string(kept) + "]\n"));
    EXPECT_EQ(SIGTERM, EndOf(dhcp));
    EXPECT_EQ(SIGTERM, EndOf(second));
    EXPECT_EQ(0, EndOf(kept));
    EXPECT_EQ(0, EndOf(other));
    EXPECT_EQ(-1, COM_KillProcbyName(nullptr, nullptr));

    const pid_t first = StartDecoy("init-one");
    const pid_t later = StartDecoy("init-two");
    const pid_t inside = StartDecoy("/sbin/init");
    EXPECT_NE(std::string::npos, OutputOf([] { EXPECT_EQ(0, COM_SendSignal("init", 0, SIGUSR1)); })
                                     .find("COM_SendSignal(): [pid:" + std::to_string(getpid()) +
                                           "] - kill(" + std::to_string(first) + "[init], 10)\n"));
    EXPECT_EQ(SIGUSR1, EndOf(first));
    EXPECT_EQ(0, EndOf(inside));
    EXPECT_EQ(0, COM_SendSignal(nullptr, later, SIGTERM));
    EXPECT_EQ(SIGTERM, EndOf(later));
    EXPECT_EQ(-1, COM_SendSignal("init", 0, SIGTERM));
    // The process's own link comes first and is no process; the scan ends there all the same.
    EXPECT_EQ(-1, COM_SendSignal(ReadFile("/proc/self/cmdline").c_str(), 0, SIGKILL));
    EXPECT_NE(std::string::npos,
              OutputOf([&] {
                  EXPECT_EQ(-1, COM_SendSignal(nullptr, first, SIGTERM));
              }).find("kill(" + std::to_string(first) + ", 15) fail : No such process\n"));
}

TEST(Process, SavesItsPid) {
    const mode_t mask = umask(0);
    EXPECT_EQ(-1, COM_SavePid("/tmp/pid"));
    umask(mask);
    struct stat status;
    EXPECT_EQ(stat("/tmp/pid", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(std::to_string(getpid()), ReadFile("/tmp/pid"));
    EXPECT_NE(std::string::npos, OutputOf([] {
                                     COM_SavePid("/none/pid");
                                 }).find("open(/none/pid) error : No such file"));
}

// What happens while the file systems are flushed: the actions do that before they act.
static std::function<void()> atSync;

extern "C" void sync() noexcept {
    if (atSync) {
        std::exchange(atSync, nullptr)();
    }
}

TEST(Watchdog, CarriesOutWhatIsDue) {
    const std::string later = std::to_string(time(nullptr) + 1000);
    const struct {
        const char *name;
        std::string text;
        bool removed;
        std::string message;
    } kCases[] = {
        {"RERUN", "0,echo 100%% '%s' %n% >/tmp/rerun", true,
         "TQ_WatchdogRerun(): [0,echo 100%% '%s' %n% >/tmp/rerun] => path = echo 100% '%s' %n%"},
        {"RERUN", "0", false, "0 sec before re-run [0]!\n"},
        {"RERUN", later + ",touch /tmp/never", false, " sec before re-run ["},
        {"RERUN", "9999999999,touch /tmp/never", false, "TQ_WatchdogRerun(): 8"},
        {"RERUN", "x,touch /tmp/never", false, ""},
        {"RERUN2", "1,true", true, "Parent : Rerun [true] at 1\n"},
        {"REBOOT.old", "0", true, "- kill("},
        {"SHUTDOWN", "5\nmore", true, ", 10)\n"},
        {"SHUTDOWN", later, false, ""},
        {"REBOOT", "-5", false, ""},
        {"REBOOT", "", false, ""},
        {"reboot", "0", false, ""},
        {"lost+found", "0", false, ""},
    };
    Shell("mkdir /var/watchdog");
    for (const auto &c : kCases) {
        const std::string path = std::string("/var/watchdog/") + c.name;
        const pid_t init = StartDecoy("init");
        WriteFile(path, c.text);
        const std::string output = OutputOf([] { config::WatchdogFolder("/var/watchdog").Scan(); });
        EXPECT_EQ(c.removed, access(path.c_str(), F_OK) != 0) << c.name << c.text;
        ExpectSaid(c.message, output);
        remove(path.c_str());
        kill(init, SIGKILL);
        waitpid(init, nullptr, 0);
    }
    usleep(200000);
    EXPECT_EQ("100% %s %n%\n", ReadFile("/tmp/rerun"));
    EXPECT_NE(0, access("/tmp/never", F_OK));
    EXPECT_NE(std::string::npos, OutputOf([] {
                                     TQ_Watchdog(nullptr);
                                 }).find("TQ_Watchdog(): Invalid pFolder - Watchdog exit\n"));
}

TEST(Watchdog, CarriesOutARequestOnce) {
    Shell(
        "mkdir -p /var/watchdog; mount --bind /var/watchdog /var/watchdog; chmod 777 "
        "/var/watchdog");
    const auto allow = [](const char *access) {
        Shell(std::string("mount -o remount,bind,") + access + " /var/watchdog");
    };
    const int leak = fcntl(STDOUT_FILENO, F_DUPFD, 77);
    const std::string command = "0,echo ran >>/tmp/reran; ls /proc/self/fd >/tmp/fds";
    config::WatchdogFolder folder("/var/watchdog");
    // One that can't be removed; written anew, it is another one.
    for (const std::string ran : {"ran\n", "ran\nran\n"}) {
        WriteFile("/var/watchdog/RERUN", command);
        allow("ro");
        const std::string output = OutputOf([&] {
            for (int i = 0; i < 3; ++i) {
                folder.Scan();
                waitpid(-1, nullptr, 0);
            }
        });
        EXPECT_EQ(ReadFile("/tmp/reran"), ran);
        EXPECT_EQ(Count(output, "unlink(/var/watchdog/RERUN) failed : Read-only file system\n"), 1);
        EXPECT_EQ(Count(output, "/var/watchdog is not root's alone: "), ran == "ran\n");
        allow("rw");
    }
    EXPECT_EQ(Count("\n" + ReadFile("/tmp/fds"), "\n" + std::to_string(leak) + "\n"), 0);
    close(leak);
    remove("/var/watchdog/RERUN");
    // One that takes the place of another while that is carried out.
    WriteFile("/var/watchdog/REBOOT", "0");
    atSync = [] {
        WriteFile("/tmp/new", "9");
        Shell("mv /tmp/new /var/watchdog/REBOOT");
    };
    OutputOf([&] { folder.Scan(); });
    EXPECT_EQ(ReadFile("/var/watchdog/REBOOT"), "9");
    OutputOf([&] { folder.Scan(); });
    EXPECT_EQ(ListFolder("/var/watchdog"), "");
    Shell("umount /var/watchdog");
}

// Inode numbers that need 64 bits, as an overlay makes them: a 32-bit build must list them too.
TEST(Watchdog, SeesRequestsOnEveryFileSystem) {
    Shell(
        "mkdir /tmp/upper /tmp/work /tmp/merged && mount -t tmpfs lower /srv && echo 0,true "
        ">/srv/RERUN && mount -t overlay -o "
        "lowerdir=/srv,upperdir=/tmp/upper,workdir=/tmp/work,xino=on overlay /tmp/merged");
    OutputOf([] { config::WatchdogFolder("/tmp/merged").Scan(); });
    EXPECT_EQ("", ListFolder("/tmp/merged"));
    // The child of the re-run holds the folder until it ends.
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    Shell("umount /tmp/merged /srv");
}
