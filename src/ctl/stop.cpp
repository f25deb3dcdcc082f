#include "ctl/stop.h"

#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <cstring>

namespace ctl {

namespace {

// A handler can be told things in no other way than by what outlives all calls. It may run between
// any two stores: a wish is there once its flag is set.
struct LastWishes {
    std::atomic<bool> sends;
    int descriptor;
    size_t size;
    char message[64];
    std::atomic<bool> restores;
    int terminal;
    termios settings;
};

constinit LastWishes wishes{};
static_assert(std::atomic<bool>::is_always_lock_free);

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM};

// Calls nothing but what is safe in a handler, and lets the signal end the program.
void Leave(int number) {
    if (wishes.sends) {
        sendto(wishes.descriptor, wishes.message, wishes.size, 0, nullptr, 0);
    }
    if (wishes.restores) {
        tcsetattr(wishes.terminal, TCSAFLUSH, &wishes.settings);
    }
    raise(number);
}

void TakeSignals() {
    struct sigaction action {};
    action.sa_handler = Leave;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : kSignals) {
        sigaction(number, &action, nullptr);
    }
}

}  // namespace

void SendWhenStopped(int descriptor, const void *message, size_t size) {
    if (size <= sizeof wishes.message) {
        wishes.descriptor = descriptor;
        wishes.size = size;
        memcpy(wishes.message, message, size);
        wishes.sends = true;
        TakeSignals();
    }
}

void RestoreWhenStopped(int terminal, const termios &settings) {
    wishes.restores = false;
    wishes.terminal = terminal;
    wishes.settings = settings;
    wishes.restores = terminal != -1;
    TakeSignals();
}

}  // namespace ctl
