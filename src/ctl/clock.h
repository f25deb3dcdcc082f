// The time that passes, in the unit that poll takes.
#pragma once

#include <cstdint>

#include "common/clock.h"

namespace ctl {

using Milliseconds = int64_t;

inline Milliseconds Now() {
    const timeval now = MonotonicTime();
    return Milliseconds{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

}  // namespace ctl
