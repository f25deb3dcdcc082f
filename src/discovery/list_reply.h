// The answer to a list request: the records of all units on the LAN, this one last.
#pragma once

#include <cstddef>

#include "common/owners.h"

namespace discovery {

// Base64 text, or nothing when there was no memory or nobody else.
struct ListReply {
    HeapBlock<char> text;
    size_t length = 0;
};

// Discovers the LAN, which takes 1.6 seconds, and builds the reply. `logCount` reports how many
// others are there; a message says so when nobody is.
[[nodiscard]] ListReply DiscoverForList(void (*logCount)(int count));

}  // namespace discovery
