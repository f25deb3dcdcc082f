#include "ctl/ask.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/owners.h"
#include "ctl/stop.h"
#include "ctl/text.h"

namespace ctl {

static constexpr char kTerminal[] = "/dev/tty";

Secret::~Secret() {
    explicit_bzero(text, sizeof text);
}

// Reads one line without its line end, byte by byte, so that nothing of what follows is taken nor
// left in a buffer. Returns false when there is none, or when it is too long.
static bool ReadLine(int descriptor, Secret *line) {
    size_t used = 0;
    for (char c; read(descriptor, &c, 1) == 1;) {
        if (c == '\n') {
            line->text[used - (used > 0 && line->text[used - 1] == '\r' ? 1 : 0)] = '\0';
            return true;
        }
        if (used + 1 == sizeof line->text || c == '\0') {
            return false;
        }
        line->text[used++] = c;
    }
    line->text[used] = '\0';
    return used > 0;
}

[[noreturn]] static void FailToRead(const char *name) {
    Fail(kUsage, "%s has no line of at most 63 characters", name);
}

// Reads a password from a file; without one from standard input.
static void ReadFrom(const char *path, Secret *password) {
    const UniqueFd file(path ? open(path, O_RDONLY | O_CLOEXEC) : dup(STDIN_FILENO));
    const char *name = path ? path : "standard input";
    if (!file) {
        __extension__ Fail(kUsage, "can't read %s: %m", name);
    }
    if (!ReadLine(file.get(), password)) {
        FailToRead(name);
    }
}

static void ReadFromTerminal(const char *prompt, Secret *password) {
    const UniqueFd terminal(open(kTerminal, O_RDWR | O_CLOEXEC));
    termios settings;
    if (tcgetattr(terminal.get(), &settings) == -1) {
        Fail(kUsage, "no terminal to ask on: use --password-file or --password-stdin");
    }
    RestoreWhenStopped(terminal.get(), settings);
    termios silent = settings;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(terminal.get(), TCSAFLUSH, &silent);
    dprintf(terminal.get(), "%s: ", prompt);
    const bool read = ReadLine(terminal.get(), password);
    dprintf(terminal.get(), "\n");
    tcsetattr(terminal.get(), TCSAFLUSH, &settings);
    RestoreWhenStopped(-1, settings);
    if (!read) {
        FailToRead(kTerminal);
    }
}

void ReadPassword(const Options &options, Secret *password) {
    if (options.passwordFile || options.passwordStdin) {
        ReadFrom(options.passwordFile, password);
    } else {
        ReadFromTerminal("Password", password);
    }
}

void ReadNewPassword(const Options &options, Secret *password) {
    if (options.newPasswordFile || options.passwordStdin) {
        ReadFrom(options.newPasswordFile, password);
        return;
    }
    Secret again;
    ReadFromTerminal("New password", password);
    ReadFromTerminal("New password again", &again);
    if (strcmp(password->text, again.text) != 0) {
        Fail(kUsage, "the two new passwords differ");
    }
}

bool Confirm(const char *detour) {
    const UniqueFd terminal(open(kTerminal, O_RDWR | O_CLOEXEC));
    Secret answer;
    if (TerminalColumns(STDIN_FILENO) < 0 || !terminal) {
        return false;
    }
    dprintf(terminal.get(), "Give %s? [y/N] ", detour);
    return ReadLine(terminal.get(), &answer) && (answer.text[0] | 0x20) == 'y';
}

}  // namespace ctl
