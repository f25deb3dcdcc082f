#include "ctl/clock.h"

#include <poll.h>

#include "common/clock.h"

namespace ctl {

uint32_t Ticks() {
    const timeval now = MonotonicTime();
    return static_cast<uint32_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_usec) / 1000;
}

bool Stopwatch::AwaitInput(int descriptor, Milliseconds limit) const {
    pollfd wanted{descriptor, POLLIN, 0};
    for (Milliseconds left; (left = limit - Passed()) > 0;) {
        if (poll(&wanted, 1, left) == 1) {
            return true;
        }
    }
    return false;
}

void Pause(Milliseconds time) {
    poll(nullptr, 0, time);
}

}  // namespace ctl
