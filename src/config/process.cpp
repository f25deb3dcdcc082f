#include "config/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/owners.h"
#include "common/text.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr char kProcessTable[] = "/proc";

// Reads the first word of a process's command line: the words are separated by zero bytes. Empty
// when the process is gone or has none.
static void ReadFirstWord(const char *entry, char *word, size_t size) {
    char path[300];
    snprintf(path, sizeof path, "%s/%s/%s", kProcessTable, entry, "cmdline");
    word[0] = '\0';
    const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t count = file ? read(file.get(), word, size - 1) : 0;
    word[count > 0 ? count : 0] = '\0';
}

// Whether the word lacks one of the texts; a null ends them.
static bool LacksOneOf(const char *word, va_list texts) {
    while (const char *text = va_arg(texts, const char *)) {
        if (!strstr(word, text)) {
            return true;
        }
    }
    return false;
}

int COM_KillProcbyName(const char *name, ...) {
    const UniqueDir table(name ? opendir(kProcessTable) : nullptr);
    if (!table) {
        return -1;
    }
    int result = -1;
    while (const dirent *entry = readdir(table.get())) {
        if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) {
            continue;
        }
        char word[128 + 1];
        ReadFirstWord(entry->d_name, word, sizeof word);
        if (!strstr(word, name)) {
            continue;
        }
        va_list texts;
        va_start(texts, name);
        const int mark = LacksOneOf(word, texts) ? -1 : 0;
        va_end(texts);
        const pid_t pid = ParseInt(entry->d_name);
        if (mark == 0 || pid <= 0) {
            TQ_LOG("isKill[%d] Invalid pid[%d]\n", mark, pid);
        } else if (kill(pid, SIGTERM) == 0) {
            result = 0;
        } else {
            TQ_LOG("kill [%s][%d] failed: %m\n", name, pid);
        }
    }
    return result;
}

static int Signal(pid_t pid, int signal, MessageOrigin origin) {
    const int result = kill(pid, signal);
    if (result == -1) {
        TQ_LOG_FOR(origin, "kill(%d, %d) fail : %m\n", pid, signal);
    }
    return result;
}

int COM_SendSignal(const char *name, pid_t pid, int signal) {
    if (!name) {
        return pid > 0 ? Signal(pid, signal, TQ_ORIGIN(__func__)) : -1;
    }
    const UniqueDir table(opendir(kProcessTable));
    if (!table) {
        return -1;
    }
    while (const dirent *entry = readdir(table.get())) {
        if (!IsOrdinaryEntry(*entry)) {
            continue;
        }
        char word[80 + 1];
        ReadFirstWord(entry->d_name, word, sizeof word);
        if (strncmp(word, name, strlen(name)) != 0) {
            continue;
        }
        const pid_t target = ParseInt(entry->d_name);
        TQ_LOG("[pid:%d] - kill(%d[%s], %d)\n", getpid(), target, name, signal);
        return target > 0 ? Signal(target, signal, TQ_ORIGIN(__func__)) : -1;
    }
    return -1;
}

int COM_SavePid(const char *path) {
    if (!path) {
        return -1;
    }
    // Whoever may write into it names the process that the init script ends.
    const UniqueFd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file) {
        // dprintf would leave the daemon a page of heap that it never uses again.
        char text[12];
        const int length = snprintf(text, sizeof text, "%d", getpid());
        [[maybe_unused]] const ssize_t written =
            write(file.get(), text, static_cast<size_t>(length));
    } else {
        TQ_LOG("open(%s) error : %m\n", path);
    }
    return -1;
}
