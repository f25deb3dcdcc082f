// The clock that nobody sets.
#pragma once

#include <sys/time.h>

#include <cstdint>

// The time since some point in the past; setting the date does not change it.
timeval MonotonicTime();

inline int64_t MonotonicMicroseconds() {
    const timeval now = MonotonicTime();
    return int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

inline time_t MonotonicSeconds() {
    return MonotonicTime().tv_sec;
}
