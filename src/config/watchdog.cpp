#include "config/watchdog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <span>
#include <type_traits>

#include "common/first_line.h"
#include "common/pause.h"
#include "config/command.h"
#include "config/process.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kOrigin = TQ_ORIGIN("TQ_Watchdog");
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

// Seconds since the epoch. Where a time_t has 32 bits it is read as an unsigned number, which lasts
// until 2106.
using ClockSeconds = std::conditional_t<sizeof(time_t) == sizeof(uint32_t), uint32_t, int64_t>;

// When a request falls due, seen from now.
struct DueTime {
    ClockSeconds now;
    int64_t due;

    int64_t SecondsLeft() const { return due == 0 ? 0 : due - now; }
    bool IsAhead() const { return due != 0 && now < due; }
    bool IsCountdownTime() const { return now % 5 == 0; }
};

}  // namespace

static bool ReadDueTime(const char *text, DueTime *request) {
    if (!text || !isdigit(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    *request = {static_cast<ClockSeconds>(time(nullptr)), strtoll(text, nullptr, 10)};
    return true;
}

// What reboot and shutdown share: init gets `signal` once the request is due and the file systems
// have been flushed `syncs` times.
static int SignalInitWhenDue(const char *text, const char *event, int syncs, int signal,
                             MessageOrigin origin) {
    DueTime request;
    if (!ReadDueTime(text, &request)) {
        return -1;
    }
    if (request.IsCountdownTime()) {
        TQ_LOG_FOR(origin, "%" PRId64 " sec before %s!\n", request.SecondsLeft(), event);
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
    return SignalInitWhenDue(text, "reboot", 2, SIGTERM, TQ_ORIGIN(__func__));
}

int TQ_WatchdogShutdown(const char *text) {
    return SignalInitWhenDue(text, "shutdown", 1, SIGUSR1, TQ_ORIGIN(__func__));
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

[[noreturn]] static void RunInChild(const char *command, int64_t due) {
    // system() waits for its shell, which TQ_Watchdog's own way with children would not allow.
    signal(SIGCHLD, SIG_DFL);
    TQ_LOG_FOR(TQ_ORIGIN("TQ_WatchdogRerun"), "Child : Rerun [%s] at %" PRId64 "\n", command, due);
    fflush(stdout);
    // Whatever the daemon's launcher left open is not the command's to read or write.
    COM_CloseFdExceptSTD(getpid());
    config::SetTerminalSignals(SIG_DFL);
    // What the command made of itself is its own affair.
    [[maybe_unused]] const int status = system(command);
    _exit(0);
}

int TQ_WatchdogRerun(const char *text) {
    DueTime request;
    if (!ReadDueTime(text, &request)) {
        return -1;
    }
    TQ_LOG("%" PRId64 " sec before re-run [%s]!\n", request.SecondsLeft(), text);
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
        TQ_LOG("fork() failed : %m\n");
        return -1;
    }
    TQ_LOG("Parent : Rerun [%s] at %" PRId64 "\n", command, request.due);
    return 0;
}

namespace config {

static std::optional<RequestState> StateOf(const char *path) {
    struct stat status;
    if (stat(path, &status) == -1) {
        return std::nullopt;
    }
    return RequestState{status.st_dev, status.st_ino, status.st_ctim.tv_sec,
                        status.st_ctim.tv_nsec};
}

bool WatchdogFolder::IsDone(const RequestState &state) const {
    for (const RequestState &old : std::span(done_.get(), count_)) {
        if (old == state) {
            return true;
        }
    }
    return false;
}

void WatchdogFolder::MarkDone(const RequestState &state) {
    for (RequestState &old : std::span(done_.get(), count_)) {
        if (old.device == state.device && old.inode == state.inode) {
            old = state;
            return;
        }
    }
    void *grown = realloc(done_.get(), (count_ + 1) * sizeof state);
    if (!grown) {
        TQ_LOG_FOR(kOrigin, "REALLOC() failed : %m\n");
        return;
    }
    static_cast<void>(done_.release());
    done_.reset(static_cast<RequestState *>(grown));
    done_.get()[count_++] = state;
}

void WatchdogFolder::Remove(const char *path, const RequestState &state) {
    // A request that took the place of this one meanwhile is still to be looked at.
    if (StateOf(path) != state || unlink(path) == 0) {
        return;
    }
    TQ_LOG_FOR(kOrigin, "unlink(%s) failed : %m\n", path);
    MarkDone(state);
}

// Tries every action on one entry of the folder.
void WatchdogFolder::HandleEntry(const char *name) {
    char path[PATH_MAX];
    if (snprintf(path, sizeof path, "%s/%s", path_, name) >= static_cast<int>(sizeof path)) {
        return;
    }
    for (const TQ_WatchDogEntry &entry : gTQ_WatchDogArray) {
        if (strncmp(name, entry.name, strlen(entry.name)) != 0) {
            continue;
        }
        const std::optional<RequestState> state = StateOf(path);
        if (!state || IsDone(*state)) {
            continue;
        }
        char text[kRequestSize] = "";
        // What was read belongs to the state only if nobody has written in between.
        if (COM_GetFileContent(path, text, sizeof text) == 0 && StateOf(path) == state &&
            entry.action(text) == 0) {
            Remove(path, *state);
        }
    }
}

// Whoever may write into the folder commands this unit.
void WatchdogFolder::CheckOwner(int folder) {
    static constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
    struct stat status;
    const bool open =
        fstat(folder, &status) == 0 && (status.st_uid != 0 || (status.st_mode & kOthersWrite) != 0);
    if (open && !saidOpen_) {
        TQ_LOG_FOR(kOrigin,
                   "%s is not root's alone: others can reboot this unit and run commands on it\n",
                   path_);
    }
    saidOpen_ = open;
}

void WatchdogFolder::Scan() {
    const UniqueDir directory(opendir(path_));
    if (!directory) {
        return;
    }
    CheckOwner(dirfd(directory.get()));
    while (const dirent *entry = readdir(directory.get())) {
        if (IsOrdinaryEntry(*entry)) {
            HandleEntry(entry->d_name);
        }
    }
}

}  // namespace config

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
    config::WatchdogFolder requests(folder);
    while (true) {
        requests.Scan();
        COM_TakeABreak({1, 0}, 1000);
    }
}
