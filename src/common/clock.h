// The clock that nobody sets.
#pragma once

#include <cstdint>

// Microseconds since some point in the past; setting the date does not change it.
int64_t MonotonicMicroseconds();

// The same in whole seconds.
inline int64_t MonotonicSeconds() {
    return MonotonicMicroseconds() / 1000000;
}
