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
    signal(number, SIG_DFL);
    raise(number);
}

// Changes the wishes while no signal can come between.
template <class Change>
void ChangeWishes(Change change) {
    sigset_t all;
    sigset_t old;
    sigemptyset(&all);
    for (const int number : kSignals) {
        sigaddset(&all, number);
    }
    sigprocmask(SIG_BLOCK, &all, &old);
    change();
    for (const int number : kSignals) {
        struct sigaction action {};
        action.sa_handler = Leave;
        sigaction(number, &action, nullptr);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

}  // namespace

void SendWhenStopped(int descriptor, const void *message, size_t size) {
    ChangeWishes([&] {
        wishes.size = size < sizeof wishes.message ? size : 0;
        wishes.descriptor = descriptor;
        if (wishes.size > 0) {
            memcpy(wishes.message, message, wishes.size);
        }
    });
}

void RestoreWhenStopped(int terminal, const termios &settings) {
    ChangeWishes([&] {
        wishes.terminal = terminal;
        wishes.settings = settings;
    });
}

}  // namespace ctl
