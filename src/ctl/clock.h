// The time that passes, in the unit that poll takes.
#pragma once

#include <cstdint>

#include "common/clock.h"

namespace ctl {

using Milliseconds = int64_t;

inline Milliseconds Now() {
    return MonotonicMicroseconds() / 1000;
}

}  // namespace ctl
