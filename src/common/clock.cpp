#include "common/clock.h"

#include <ctime>

timeval MonotonicTime() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
}
