#include "common/clock.h"

#include <ctime>

int64_t MonotonicMicroseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}
