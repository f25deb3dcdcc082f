// TCP connections whose requests have not come yet.
#pragma once

#include <poll.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "common/owners.h"

namespace discovery {

// They wait beside the server's other sockets, at most kMost of them and each for at most five
// seconds: a client that says nothing costs nobody else anything.
class WaitingConnections {
  public:
    static constexpr size_t kMost = 16;
    using PollSet = std::span<pollfd, kMost>;

    // Takes one in; without a place left, the one that has waited longest goes.
    void Add(UniqueFd connection);

    // Enters all into a set for poll() and returns how much of it that has to look at: poll()
    // refuses a set with more places than the process may have descriptors.
    [[nodiscard]] size_t Watch(PollSet set) const;

    // Read the outcome: hand out the one that has waited longest of those that are ready (empty
    // when none is), drop those whose time is over and that are not.
    [[nodiscard]] UniqueFd TakeReady(PollSet set);
    void DropOverdue(PollSet set);

    // Milliseconds until the next one's time is over; -1 when there is none.
    [[nodiscard]] int TimeLeft() const;

  private:
    struct Place {
        UniqueFd connection;
        int64_t end = INT64_MAX;  // as MonotonicMicroseconds counts; the last for an empty place
    };

    static void GiveUp(Place *place);

    std::array<Place, kMost> places_;
};

}  // namespace discovery
