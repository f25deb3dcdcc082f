#include "ctl/stop.h"

#include <sys/socket.h>

#include <csignal>
#include <cstring>

namespace ctl {

namespace {

// A handler can be told things in no other way than by what outlives all calls.
struct LastWishes {
    int descriptor;
    size_t size;
    char message[64];
    int terminal;
    termios settings;
};

LastWishes wishes{-1, 0, {}, -1, {}};

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM};

// Calls nothing but what is safe in a handler, and lets the signal end the program.
void Leave(int number) {
    if (wishes.size > 0) {
        send(wishes.descriptor, wishes.message, wishes.size, 0);
    }
    if (wishes.terminal != -1) {
        tcsetattr(wishes.terminal, TCSAFLUSH, &wishes.settings);
    }
    raise(number);
}

// Changes the wishes while no signal can come between.
void SetWishes(const LastWishes &changed) {
    struct sigaction action {};
    action.sa_handler = Leave;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigset_t old;
    sigfillset(&action.sa_mask);
    sigprocmask(SIG_BLOCK, &action.sa_mask, &old);
    wishes = changed;
    for (const int number : kSignals) {
        sigaction(number, &action, nullptr);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

}  // namespace

void SendWhenStopped(int descriptor, const void *message, size_t size) {
    LastWishes changed = wishes;
    if (size <= sizeof changed.message) {
        changed.descriptor = descriptor;
        changed.size = size;
        memcpy(changed.message, message, size);
    }
    SetWishes(changed);
}

void RestoreWhenStopped(int terminal, const termios &settings) {
    LastWishes changed = wishes;
    changed.terminal = terminal;
    changed.settings = settings;
    SetWishes(changed);
}

}  // namespace ctl
