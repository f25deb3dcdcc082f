// The files that the daemon reads its settings from and writes new ones to.
#include <sys/mount.h>

#include <csignal>

#include "config/config_file.h"
#include "config/line_editor.h"
#include "config/network_setup.h"
#include "config/stanza_editor.h"
#include "support/files.h"

using namespace std::string_literals;

TEST(ConfigFile, SetsWhatItsLinesSay) {
    const std::string eighty(80, 'n'), longer = eighty + "more";
    const struct {
        std::string text, said;
        int netsetup = 0;
        std::string netfile = "/n", dnsfile = "/d";
    } cases[] = {
        {"netsetup=yes\n", "NETSETUP = YES\n", 1},
        {"NETSETUP=NOYES", "NETSETUP = YES\n", 1},
        {"NETSETUP=NO\n", ""},
        {"NETSETUP=YES\nNETSETUP=NO\n", "NETSETUP = YES\n", 1},
        {" NETFILE=\"/x\"\n#NETFILE=\"/x\"\n", ""},
        {"NETFILE=\"/x\"\r\n", "NETFILE = [/x]\n", 0, "/x"},
        {"netfile_old \"/y\" \"/z\"\n", "NETFILE = [/y]\n", 0, "/y"},
        {"NETFILE=\"\"\n", "NETFILE = []\n", 0, ""},
        {"NETFILE=\"/x\nDnsFile \"/e\"\n", "NETFILE = [/n]\nDNSFILE = [/e]\n", 0, "/n", "/e"},
        {"DNSFILE=\"/e\"\nNETFILE=\"" + longer + "\"\n",
         "DNSFILE = [/e]\nWarning! overflow (len, size) = (84, 80)\nNETFILE = [" + eighty + "]\n",
         0, eighty, ""},
        {"NETFILE=\"" + eighty + "\"\nDNSFILE=\"/e\"\n",
         "Warning! overflow (len, size) = (80, 80)\nNETFILE = [" + eighty + "]\nDNSFILE = [/e]\n",
         0, eighty + "/e", "/e"},
        {"PWDFILE=\"" + eighty + "\"\n",
         "Warning! overflow (len, size) = (80, 80)\nPWDFILE = [" + eighty + "]\n"},
        {std::string(127, '#') + "NETFILE=\"/x\"\n", "NETFILE = [/x]\n", 0, "/x"},
        {"netscript=\"/a b\"\nUSERSCRIPT \"/c\"\n", "NETSCRIPT = [/a b]\nUSERSCRIPT = [/c]\n"},
        {std::string(1 << 20, '\0'), ""},
    };
    TQ_Cfg cfg;
    for (const auto &row : cases) {
        WriteFile("/tmp/TQ.conf", row.text);
        cfg = {};
        cfg.pCfgFile = "/tmp/TQ.conf";
        strcpy(cfg.netfile, "/n");
        strcpy(cfg.dnsfile, "/d");
        EXPECT_EQ(SaidBy("TQ,TQ_ParsetCfg", [&] { EXPECT_EQ(TQ_ParsetCfg(&cfg), 0); }),
                  "pCfgFile = [/tmp/TQ.conf]\n" + row.said);
        EXPECT_EQ(cfg.netsetup, row.netsetup);
        EXPECT_EQ(static_cast<const char *>(cfg.netfile), row.netfile);
        EXPECT_EQ(static_cast<const char *>(cfg.dnsfile), row.dnsfile);
    }
    cfg.pCfgFile = "/none";
    EXPECT_EQ(SaidBy("TQ,TQ_ParsetCfg", [&] { EXPECT_EQ(TQ_ParsetCfg(&cfg), -1); }),
              "fopen(/none) error : No such file or directory\n");
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
        int result;
        std::string after;
        struct {
            int checkOnly = 0, anywhere = 0, append = 0;
        } flags = {};
    } cases[] = {
        {"a 1\nb 2\na 3\n", Item("A", "a new"), Item("b", ""), 2, "a new\na 3\n"},
        {"x a\nb", Item("a", "a new"), Item("b", "b new"), 1, "x a\nb new\n"},
        {"x a\nA", Item("a", "a new"), Item("A", "A new"), 2, "a new\nA new\n", {.anywhere = 1}},
        {"c\n", Item("a", "a new"), Item("b", ""), 1, "c\na new\n", {.append = 1}},
        {"a\nb\n", Item("a", "x"), Item("b", "y"), 2, "a\nb\n", {.checkOnly = 1}},
        {"a\n", Item("a", "x"), Item("b", "y"), 2, "a\n", {.checkOnly = 1, .append = 1}},
        {longLine + "\na\r\n", Item("a", "a new"), Item("b", ""), 1, longLine + "\na new\n"},
        {"", Item("a", "x"), Item("b", "y"), 0, ""},
        {"b\0c\na\0x\n\0y\n"s, Item("a", "a new"), Item("b", "z"), 2, "z\na new\n\0y\n"s},
        {"100% %s %n\n", Item("a", "%s%n"), Item("b", ""), 1, "100% %s %n\n%s%n\n", {.append = 1}},
    };
    for (const auto &row : cases) {
        WriteFile("/tmp/lines", row.before);
        Shell("chmod 640 /tmp/lines");
        COM_ReplaceItem items[] = {row.first, row.second};
        COM_ReplaceItemList list{2, row.flags.checkOnly, row.flags.anywhere, row.flags.append,
                                 items};
        EXPECT_EQ(
            OutputOf([&] { EXPECT_EQ(COM_ReplaceItemsInFile("/tmp/lines", &list), row.result); }),
            "");
        EXPECT_EQ(ReadFile("/tmp/lines"), row.after);
        EXPECT_EQ(ListFolder("-l /tmp/lines").substr(0, 10), "-rw-r-----");
    }
    EXPECT_EQ(config::ReplaceNameServer("/tmp/created", "1.2.3.4"), 0);
    EXPECT_EQ(ReadFile("/tmp/created"), "");
    EXPECT_EQ(access("/tmp/created", F_OK), 0);
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
    const std::string
        bare = "iface eth0 inet static\n  address 192.168.1.10\n  netmask 255.255.255.0\n",
        fixed = bare + "\n", routed = bare + "  gateway 192.168.1.1\n\n",
        dhcp = "iface eth0 inet dhcp\n", named = dhcp + "  hostname cam1\n\n",
        changed = "search x\nnameserver 9.9.9.9\nNameServer 2.2.2.2\n",
        noStanza = "iface\niface eth1\n" + std::string(500, 'x'),
        user = "Execute : pCfg->userscript = [/tmp/script user]\n",
        ran = "Execute : pCfg->netscript = [/tmp/script restart  now]\n" + user;
    const auto framed = [](const std::string &stanza) { return "\n==\n" + stanza + "==\n"; };
    const struct {
        std::string after, said, before = kInterfaces;
        const char *method = "static", *gateway = "", *name = "cam1",
                   *netscript = "/tmp/script restart  now";
        std::string resolver = "search x\nnameserver 1.1.1.1\nNameServer 2.2.2.2\n",
                    newResolver = resolver;
        int result = 0;
    } cases[] = {
        {.after = WithStanza(named), .said = framed(named) + ran, .method = "dhcp"},
        {.after = WithStanza(dhcp),
         .said = framed(dhcp + "  hostname (none)\n\n") + ran,
         .method = "dhcp",
         .name = "(none)"},
        {.after = WithStanza(routed),
         .said = framed(routed) + ran,
         .gateway = "192.168.1.1",
         .newResolver = changed},
        {.after = WithStanza(fixed),
         .said = "Skip invalid gateway - [10.0.0.1]\n" + framed(fixed) + ran,
         .gateway = "10.0.0.1",
         .newResolver = changed},
        {.after = WithStanza(fixed),
         .said = "Skip invalid gateway - [192.168.1.1 ;id]\n" + framed(fixed) + ran,
         .gateway = "192.168.1.1 ;id",
         .newResolver = changed},
        {.after = WithStanza(fixed),
         .said = "Skip invalid gateway - []\n" + framed(fixed),
         .resolver = "none\n",
         .result = -1},
        {.after = noStanza, .said = ran, .before = noStanza},
        {.after = "auto eth0\r\n" + named + named + "auto z\r\nl\0st"s,
         .said = framed(named) + framed(named) + user,
         .before =
             "auto eth0\r\niface eth0 inet dhcp\r\n x\r\niface eth0:1 inet dhcp\r\nauto z\r\nl\0st"s,
         .method = "dhcp",
         .netscript = ""},
    };
    Shell("printf '#!/bin/sh\\necho \"$@\" >>/tmp/ran\\n' >/tmp/script; chmod 755 /tmp/script");
    for (const auto &row : cases) {
        WriteFile("/tmp/interfaces", row.before);
        WriteFile("/tmp/resolver", row.resolver);
        WriteFile("/tmp/ran", "");
        TQ_Cfg cfg{};
        strcpy(cfg.netfile, "/tmp/interfaces");
        strcpy(cfg.dnsfile, "/tmp/resolver");
        strcpy(cfg.netscript, row.netscript);
        strcpy(cfg.userscript, "/tmp/script user");
        UnitInfo request{};
        strcpy(request.dev, "eth0");
        strcpy(request.name, row.name);
        strcpy(request.ip, "192.168.1.10");
        strcpy(request.netmask, "255.255.255.0");
        strcpy(request.gateway, row.gateway);
        strcpy(request.dns, "9.9.9.9");
        strcpy(request.note, row.method);
        EXPECT_EQ(SaidBy("TQ,TQ_SetupNetwork",
                         [&] { EXPECT_EQ(TQ_SetupNetwork(&cfg, &request), row.result); }),
                  row.said);
        EXPECT_EQ(ReadFile("/tmp/interfaces"), row.after);
        EXPECT_EQ(ReadFile("/tmp/resolver"), row.newResolver);
        const std::string calls = row.netscript[0] ? "restart now\nuser\n" : "user\n";
        EXPECT_EQ(ReadFile("/tmp/ran"), row.result == 0 ? calls : "");
        EXPECT_EQ(ListFolder("-d /tmp/TQ_* 2>/dev/null"), "");
    }
    TQ_Cfg none{};
    EXPECT_EQ(OutputOf([&] { EXPECT_EQ(TQ_SetupNetwork(&none, nullptr), -1); }), "");
    EXPECT_EQ(TQ_SetupNetwork(nullptr, nullptr), -1);
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

// What fails names what could not be done, runs nothing, and leaves no temporary file.
TEST(Editors, SayWhatFailsAndKeepWhatTheyCan) {
    const std::string full = "head -c 99999 /dev/zero >full",
                      fullTmp = "mount -t tmpfs -o size=4k t /tmp; cd /tmp; " + full,
                      fullVar = "mount -t tmpfs -o size=4k t /var; cd /var; " + full,
                      noSpace = " : No space left on device : ", filling(4060, '#'),
                      unreadable = "rm f; ln -s /proc/self/mem f";
    // Each begins in a folder of 8 KB with the file f.
    const struct {
        std::string before, spoil;
        const char *netfile;  // null: the name server in f is replaced instead
        std::string said, after;
    } cases[] = {
        {"", "", "/srv/none", "fopen(/srv/none) failed : No such file or directory\n", ""},
        {"", "mount -t tmpfs -o ro t /tmp", "/srv/none", "", ""},
        {"x\n", "mount -t tmpfs -o ro t /var", nullptr,
         "mkstemp() failed : Read-only file system\n", ""},
        {"", "rm f; mkdir f", nullptr,
         "fopen(/srv/f) failed : Is a directory\ntruncate(/srv/f) error : Is a directory\n", ""},
        {"", unreadable, "/srv/f", "fgets(/srv/f) failed : Input/output error\n", ""},
        {"", unreadable, nullptr, "fgets(/srv/f) failed : Input/output error\n", ""},
        {"", "mkfifo p", "/srv/p", "fgets(/srv/p) failed : Resource temporarily unavailable\n", ""},
        {"one\niface eth0 x\n", fullTmp, "/srv/f", "fprintf() faied" + noSpace + "one\n",
         "one\niface eth0 x\n"},
        {"iface eth0 x\n", fullTmp, "/srv/f", "", "iface eth0 x\n"},
        {"one\nnameserver\n", fullVar, nullptr, "fprintf() fail" + noSpace + "one\n", ""},
        {"nameserver\n", fullVar, nullptr, "fprintf() fail" + noSpace + "nameserver 2\n", ""},
        {"iface eth0 x\nauto z\n" + filling + "\n0123456789\n", full, "/srv/f",
         "\n==\niface eth0 inet dhcp\n  hostname (none)\n\n==\nfprintf() faied" + noSpace +
             "0123456789\n",
         "iface eth0 inet dhcp\nauto z\n" + filling + "\n0123456"},
        {"nameserver\nauto 678901\n" + filling + "\n0123456789\n", full, nullptr,
         "fprintf() fail" + noSpace + "0123456789\n",
         "nameserver 2\nauto 678901\n" + filling + "\n0123456789"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.spoil + row.said);
        Shell("mount -t tmpfs -o size=8k t /srv");
        WriteFile("/srv/f", row.before);
        std::string left = "?";
        const char *origin = row.netfile ? "TQ,TQ_SetupNetwork" : "COMMON,COM_ReplaceItemsInFile";
        EXPECT_EQ(SaidBy(origin,
                         [&] {
                             Shell("cd /srv; (:; " + row.spoil + ") 2>/dev/null || :");
                             EXPECT_EQ(Edit(row.netfile), -1);
                             left = ListFolder("-d /tmp/TQ_* /var/COM_* 2>/dev/null");
                             Shell("umount /tmp /var 2>/dev/null || :");
                         }),
                  row.said);
        EXPECT_EQ(ReadFile("/srv/f"), row.after);
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
            std::signal(signal, SIG_DFL);  // whatever started the tests
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
