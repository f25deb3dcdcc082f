// Commands that the daemon runs, processes that it signals, and the watchdog's requests.
#include <fcntl.h>
#include <sys/mount.h>

#include <csignal>
#include <functional>
#include <utility>

#include "common/owners.h"
#include "config/command.h"
#include "config/process.h"
#include "config/watchdog.h"
#include "support/files.h"

TEST(Command, RunsWithoutAShell) {
    Shell(
        "printf '#!/bin/sh\\nfor a; do echo \"<$a>\"; done >/tmp/args; ls /proc/$$/fd >/tmp/fds; "
        "exit 1\\n' >/tmp/cmd; chmod 755 /tmp/cmd");
    const UniqueFd leak(fcntl(STDOUT_FILENO, F_DUPFD, 77));
    pid_t pid = 7;
    EXPECT_EQ(COM_System("/tmp/cmd a  b\tc $HOME;ls ", &pid), 256);
    EXPECT_EQ(pid, 0);
    EXPECT_EQ(ReadFile("/tmp/args"), "<a>\n<b\tc>\n<$HOME;ls>\n");
    EXPECT_FALSE(Holds(ReadFile("/tmp/fds"), std::to_string(leak.get()) + "\n"));
    std::string manyWords = "/bin/true";
    for (int i = 0; i < 128; ++i) {
        manyWords += " w";
    }
    const struct {
        std::string command, said;
    } cases[] = {
        {"/bin/true", ""},
        {"true", "[true] error : No such file or directory\n"},
        {"", "[] error : No such file or directory\n"},
        {"/bin/true " + std::string(128, 'w'), "[/bin/true] error : Argument list too long\n"},
        {manyWords, "[/bin/true] error : Argument list too long\n"},
    };
    for (const auto &row : cases) {
        int status = -1;
        EXPECT_EQ(SaidBy("COMMON,COM_ParserCMD",
                         [&] { status = COM_System(row.command.c_str(), nullptr); }),
                  row.said);
        EXPECT_EQ(status, row.said.empty() ? 0 : 127 << 8);
    }
    EXPECT_EQ(SaidBy("COMMON,COM_System", [] { EXPECT_EQ(COM_System(nullptr, nullptr), -1); }),
              "pCMD == NULL\n");
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
    while (!ReadFile("/proc/" + std::to_string(child) + "/cmdline").starts_with(name)) {
        usleep(1000);
    }
    return child;
}

// The signal that a process has got; 0 for none. It is ended here if it has not been: the first one
// counts.
static int EndOf(pid_t child) {
    int status = 0;
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return WTERMSIG(status) == SIGKILL ? 0 : WTERMSIG(status);
}

TEST(Process, SignalsByNameHitTheRightOneAmongDecoys) {
    const pid_t dhcp = StartDecoy("/sbin/udhcpc"), second = StartDecoy("udhcpc6"),
                kept = StartDecoy("udhcpc-eth0"), other = StartDecoy("dhcp");
    const auto spared = [](pid_t pid) {
        return "isKill[0] Invalid pid[" + std::to_string(pid) + "]\n";
    };
    EXPECT_EQ(SaidBy("COMMON,COM_KillProcbyName",
                     [] { EXPECT_EQ(COM_KillProcbyName("udhcpc", nullptr), -1); }),
              spared(dhcp) + spared(second) + spared(kept));
    EXPECT_EQ(SaidBy("COMMON,COM_KillProcbyName",
                     [] { EXPECT_EQ(COM_KillProcbyName("udhcpc", "eth0", nullptr), 0); }),
              spared(kept));
    EXPECT_EQ(EndOf(dhcp), SIGTERM);
    EXPECT_EQ(EndOf(second), SIGTERM);
    EXPECT_EQ(EndOf(kept), 0);
    EXPECT_EQ(EndOf(other), 0);
    EXPECT_EQ(COM_KillProcbyName(nullptr, nullptr), -1);

    const pid_t inside = StartDecoy("/sbin/init"), first = StartDecoy("init-one"),
                later = StartDecoy("init-two");
    EXPECT_EQ(
        SaidBy("COMMON,COM_SendSignal", [] { EXPECT_EQ(COM_SendSignal("init", 0, SIGUSR1), 0); }),
        "[pid:" + std::to_string(getpid()) + "] - kill(" + std::to_string(first) + "[init], 10)\n");
    EXPECT_EQ(EndOf(first), SIGUSR1);
    EXPECT_EQ(EndOf(inside), 0);
    EXPECT_EQ(COM_SendSignal(nullptr, later, SIGTERM), 0);
    EXPECT_EQ(EndOf(later), SIGTERM);
    EXPECT_EQ(COM_SendSignal("init", 0, SIGTERM), -1);
    // The process's own link comes first and is no process; the scan ends there all the same.
    EXPECT_EQ(COM_SendSignal(ReadFile("/proc/self/cmdline").c_str(), 0, SIGKILL), -1);
    EXPECT_EQ(SaidBy("COMMON,COM_SendSignal",
                     [&] { EXPECT_EQ(COM_SendSignal(nullptr, first, SIGTERM), -1); }),
              "kill(" + std::to_string(first) + ", 15) fail : No such process\n");
}

TEST(Process, SavesItsPid) {
    const mode_t mask = umask(0);
    EXPECT_EQ(COM_SavePid("/tmp/pid"), -1);
    umask(mask);
    EXPECT_EQ(ReadFile("/tmp/pid"), std::to_string(getpid()));
    EXPECT_EQ(ListFolder("-l /tmp/pid").substr(0, 10), "-rw-r--r--");
    EXPECT_EQ(SaidBy("COMMON,COM_SavePid", [] { COM_SavePid("/none/pid"); }),
              "open(/none/pid) error : No such file or directory\n");
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
        const char *said;  // null: nothing, but for a countdown
    } cases[] = {
        {"RERUN", "0,echo 100%% '%s' %n% >/tmp/rerun", true,
         "TQ_WatchdogRerun(): [0,echo 100%% '%s' %n% >/tmp/rerun] => path = echo 100% '%s' %n%"},
        {"RERUN", "0", false, "0 sec before re-run [0]!\n"},
        {"RERUN", later + ",touch /tmp/never", false, " sec before re-run ["},
        {"RERUN", "9999999999,touch /tmp/never", false, "TQ_WatchdogRerun(): 8"},
        {"RERUN", "x,touch /tmp/never", false, nullptr},
        {"RERUN2", "1,true", true, "Parent : Rerun [true] at 1\n"},
        {"REBOOT.old", "0", true, "- kill("},
        {"SHUTDOWN", "5\nmore", true, ", 10)\n"},
        {"SHUTDOWN", later, false, nullptr},
        {"REBOOT", "-5", false, nullptr},
        {"REBOOT", "", false, nullptr},
        {"reboot", "0", false, nullptr},
        {"lost+found", "0", false, nullptr},
    };
    Shell("mkdir /var/watchdog");
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name + row.text);
        const std::string path = std::string("/var/watchdog/") + row.name;
        const pid_t init = StartDecoy("init");
        WriteFile(path, row.text);
        const std::string output = OutputOf([] { config::WatchdogFolder("/var/watchdog").Scan(); });
        EXPECT_EQ(access(path.c_str(), F_OK) != 0, row.removed);
        if (row.said) {
            EXPECT_SAYS(output, row.said);
        } else {
            EXPECT_EQ(std::regex_replace(output, std::regex(".* sec before shutdown!\n"), ""), "");
        }
        remove(path.c_str());
        EndOf(init);
    }
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    EXPECT_EQ(ReadFile("/tmp/rerun"), "100% %s %n%\n");
    EXPECT_NE(access("/tmp/never", F_OK), 0);
    EXPECT_EQ(SaidBy("TQ,TQ_Watchdog", [] { TQ_Watchdog(nullptr); }),
              "Invalid pFolder - Watchdog exit\n");
}

TEST(Watchdog, CarriesOutARequestOnce) {
    Shell(
        "mkdir -p /var/watchdog; mount --bind /var/watchdog /var/watchdog; chmod 777 "
        "/var/watchdog");
    const UniqueFd leak(fcntl(STDOUT_FILENO, F_DUPFD, 77));
    config::WatchdogFolder folder("/var/watchdog");
    const std::string refusal = "unlink(/var/watchdog/RERUN) failed : Read-only file system\n",
                      warning =
                          "/var/watchdog is not root's alone: others can reboot this unit and run "
                          "commands on it\n";
    const auto scan = [&] {
        for (int i = 0; i < 3; ++i) {
            folder.Scan();
            waitpid(-1, nullptr, 0);
        }
    };
    // One that can't be removed; written anew, it is another one.
    for (const std::string ran : {"ran\n", "ran\nran\n"}) {
        WriteFile("/var/watchdog/RERUN", "0,echo ran >>/tmp/reran; ls /proc/self/fd >/tmp/fds");
        Shell("mount -o remount,bind,ro /var/watchdog");
        const std::string said = SaidBy("TQ,TQ_Watchdog", scan);
        EXPECT_EQ(std::regex_replace(said, std::regex("TQ,.*\n|0 sec.*\n"), ""),
                  (ran == "ran\n" ? warning : "") + refusal);
        EXPECT_EQ(ReadFile("/tmp/reran"), ran);
        Shell("mount -o remount,bind,rw /var/watchdog");
    }
    EXPECT_FALSE(Holds("\n" + ReadFile("/tmp/fds"), "\n" + std::to_string(leak.get()) + "\n"));
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
    EXPECT_EQ(ListFolder("/tmp/merged"), "");
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    Shell("umount /tmp/merged /srv");
}
