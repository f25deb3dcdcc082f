#include "config/command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owners.h"
#include "common/text.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr size_t kMaxWords = 128;
static constexpr size_t kMaxWordLength = 127;

namespace {

// What a waiting parent holds back: SIGINT and SIGQUIT are the command's, SIGCHLD is waitpid's.
struct HeldSignals {
    struct sigaction interrupt;
    struct sigaction quit;
    sigset_t mask;

    bool Hold() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        return sigaction(SIGINT, &ignore, &interrupt) == 0 &&
               sigaction(SIGQUIT, &ignore, &quit) == 0 &&
               sigprocmask(SIG_BLOCK, &child, &mask) == 0;
    }

    bool Restore() const {
        const bool actions =
            sigaction(SIGINT, &interrupt, nullptr) == 0 && sigaction(SIGQUIT, &quit, nullptr) == 0;
        return sigprocmask(SIG_SETMASK, &mask, nullptr) == 0 && actions;
    }
};

}  // namespace

void config::SetTerminalSignals(void (*handler)(int)) {
    signal(SIGPIPE, handler);
    signal(SIGHUP, handler);
}

static int WaitFor(pid_t child) {
    int status;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

int COM_System(const char *command, pid_t *pid) {
    if (!command) {
        TQ_LOG("pCMD == NULL\n");
        return -1;
    }
    HeldSignals held;
    if (!held.Hold()) {
        return -1;
    }
    // Whatever waits in the stream's buffer would be printed by both processes.
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        COM_CloseFdExceptSTD(getpid());
        held.Restore();
        config::SetTerminalSignals(SIG_DFL);
        COM_ParserCMD(command);
        fflush(stdout);
        _exit(127);
    }
    int result = -1;
    if (child == -1) {
        TQ_LOG("fork() failed : %m\n");
    } else {
        if (pid) {
            *pid = child;
        }
        result = WaitFor(child);
        if (pid) {
            *pid = 0;
        }
    }
    return held.Restore() ? result : -1;
}

// Splits a line in place. Returns the number of words, or -1 with errno set when there are too many
// or one is too long.
static int SplitWords(char *line, std::array<char *, kMaxWords + 1> *words) {
    size_t count = 0;
    while (char *word = NextToken(&line, " ")) {
        if (count == kMaxWords || strlen(word) > kMaxWordLength) {
            errno = E2BIG;
            return -1;
        }
        (*words)[count++] = word;
    }
    return static_cast<int>(count);
}

int COM_ParserCMD(const char *command) {
    const HeapBlock<char> line = FormatText("%s", command);
    std::array<char *, kMaxWords + 1> words{};
    int result = -1;
    const int count = line ? SplitWords(line.get(), &words) : -1;
    if (count == 0) {
        errno = ENOENT;
    }
    if (count > 0) {
        result = execv(words[0], words.data());
    }
    TQ_LOG("[%s] error : %m\n", words[0] ? words[0] : "");
    return result;
}

void COM_CloseFdExceptSTD(pid_t pid) {
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/fd", pid);
    const UniqueDir directory(opendir(path));
    if (!directory) {
        TQ_LOG("opendir(%s) error : %m\n", path);
        return;
    }
    // The list itself is read through a descriptor, which goes last.
    const int own = dirfd(directory.get());
    while (const dirent *entry = readdir(directory.get())) {
        const int descriptor = static_cast<int>(strtol(entry->d_name, nullptr, 10));
        if (descriptor > STDERR_FILENO && descriptor != own) {
            close(descriptor);
        }
    }
}
