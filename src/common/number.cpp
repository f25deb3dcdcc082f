#include "common/number.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

int ParseInt(const char *text) {
    const long value = strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}
