#include "config/watchdog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/first_line.h"
#include "common/owners.h"
#include "common/pause.h"
#include "common/text.h"
#include "config/process.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr size_t kRequestSize = 80;

struct TQ_WatchDogEntry {
    uint32_t flag;
    char name[16];
    int (*action)(const char *text);
};

static constexpr TQ_WatchDogEntry gTQ_WatchDogArray[] = {
    {0, "REBOOT", TQ_WatchdogReboot},
    {1, "SHUTDOWN", TQ_WatchdogShutdown},
    {2, "RERUN", TQ_WatchdogRerun},
};

namespace {

// When a request falls due, seen from now.
struct DueTime {
    time_t now;
    int due;

    int SecondsLeft() const { return due == 0 ? 0 : static_cast<int>(due - now); }
    bool IsAhead() const { return due != 0 && now < due; }
    bool IsCountdownTime() const { return now % 5 == 0; }
};

}  // namespace

static bool ReadDueTime(const char *text, DueTime *request) {
    if (!text || !isdigit(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    *request = {time(nullptr), ParseInt(text)};
    return true;
}

// What reboot and shutdown share: init gets `signal` once the request is due and the file systems
// have been flushed `syncs` times.
static int SignalInitWhenDue(const char *text, const char *event, int syncs, int signal,
                             const char *function) {
    DueTime request;
    if (!ReadDueTime(text, &request)) {
        return -1;
    }
    if (request.IsCountdownTime()) {
        TQ_LOG_FOR((MessageOrigin{kSource, function}), "%d sec before %s!\n", request.SecondsLeft(),
                   event);
    }
    if (request.IsAhead()) {
        return -1;
    }
    for (int i = 0; i < syncs; ++i) {
        sync();
    }
    COM_SendSignal("init", 0, signal);
    return 0;
}

int TQ_WatchdogReboot(const char *text) {
    return SignalInitWhenDue(text, "reboot", 2, SIGTERM, __func__);
}

int TQ_WatchdogShutdown(const char *text) {
    return SignalInitWhenDue(text, "shutdown", 1, SIGUSR1, __func__);
}

// Reads the command as a format text that has no arguments.
static void ExpandCommand(const char *text, char *command, size_t size) {
    size_t length = 0;
    while (*text != '\0' && length < size - 1) {
        if (text[0] == '%' && text[1] == '%') {
            ++text;
        }
        command[length++] = *text++;
    }
    command[length] = '\0';
}

[[noreturn]] static void RunInChild(const char *command, int due) {
    // system() waits for its shell, which TQ_Watchdog's own way with children would not allow.
    signal(SIGCHLD, SIG_DFL);
    TQ_LOG_FOR((MessageOrigin{kSource, "TQ_WatchdogRerun"}), "Child : Rerun [%s] at %ld\n", command,
               static_cast<long>(due));
    fflush(stdout);
    signal(SIGPIPE, SIG_DFL);  // ignored by the daemon alone
    // What the command made of itself is its own affair.
    [[maybe_unused]] const int status = system(command);
    _exit(0);
}

int TQ_WatchdogRerun(const char *text) {
    DueTime request;
    if (!ReadDueTime(text, &request)) {
        return -1;
    }
    TQ_LOG("%d sec before re-run [%s]!\n", request.SecondsLeft(), text);
    const char *comma = strchr(text, ',');
    if (request.IsAhead() || !comma) {
        return -1;
    }
    char command[kRequestSize];
    ExpandCommand(comma + 1, command, sizeof command);
    TQ_LOG("[%s] => path = %s\n", text, command);
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        RunInChild(command, request.due);
    }
    if (child == -1) {
        // The request stays for the next look.
        TQ_LOG("fork() failed : %s\n", strerror(errno));
        return -1;
    }
    TQ_LOG("Parent : Rerun [%s] at %ld\n", command, static_cast<long>(request.due));
    return 0;
}

// Tries every action on one entry of the folder.
static void HandleEntry(const char *folder, const char *name) {
    char path[PATH_MAX];
    if (snprintf(path, sizeof path, "%s/%s", folder, name) >= static_cast<int>(sizeof path)) {
        return;
    }
    for (const TQ_WatchDogEntry &entry : gTQ_WatchDogArray) {
        if (strncmp(name, entry.name, strlen(entry.name)) != 0) {
            continue;
        }
        char text[kRequestSize] = "";
        if (COM_GetFileContent(path, text, sizeof text) == 0 && entry.action(text) == 0) {
            unlink(path);
        }
    }
}

void ScanWatchdogFolder(const char *folder) {
    const UniqueDir directory(opendir(folder));
    if (!directory) {
        return;
    }
    while (const dirent *entry = readdir(directory.get())) {
        if (IsOrdinaryEntry(*entry)) {
            HandleEntry(folder, entry->d_name);
        }
    }
}

void TQ_Watchdog(const char *folder) {
    if (!folder) {
        TQ_LOG("Invalid pFolder - Watchdog exit\n");
        return;
    }
    // Nobody waits for the children; this keeps those that ended from piling up.
    struct sigaction children {};
    children.sa_handler = SIG_DFL;
    children.sa_flags = SA_NOCLDWAIT;
    sigaction(SIGCHLD, &children, nullptr);
    mkdir(folder, 0755);
    while (true) {
        ScanWatchdogFolder(folder);
        COM_TakeABreak({1, 0}, 1000);
    }
}
