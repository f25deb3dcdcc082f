#include "discovery/connections.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/clock.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr int64_t kLongestWait = 5000000;  // microseconds

namespace discovery {

// Says what a receiving call says whose time is over.
void WaitingConnections::GiveUp(Place *place) {
    errno = EAGAIN;
    TQ_LOG_FOR(TQ_ORIGIN("TQ_Server_MORA"), "recv() error : %m\n");
    *place = {};
}

void WaitingConnections::Add(UniqueFd connection) {
    // The empty ones sort behind all others.
    Place *place = std::ranges::max_element(places_, {}, &Place::end);
    if (place->connection) {
        place = std::ranges::min_element(places_, {}, &Place::end);
        GiveUp(place);
    }
    *place = {std::move(connection), MonotonicMicroseconds() + kLongestWait};
}

size_t WaitingConnections::Watch(PollSet set) const {
    size_t used = 0;
    for (size_t i = 0; i < kMost; ++i) {
        set[i] = {places_[i].connection.get(), POLLIN, 0};
        used = places_[i].connection ? i + 1 : used;
    }
    return used;
}

UniqueFd WaitingConnections::TakeReady(PollSet set) {
    Place *oldest = nullptr;
    for (size_t i = 0; i < kMost; ++i) {
        if (set[i].revents != 0 && (!oldest || places_[i].end < oldest->end)) {
            oldest = &places_[i];
        }
    }
    return oldest ? std::exchange(*oldest, {}).connection : UniqueFd();
}

void WaitingConnections::DropOverdue(PollSet set) {
    const int64_t now = MonotonicMicroseconds();
    for (size_t i = 0; i < kMost; ++i) {
        if (set[i].revents == 0 && places_[i].end <= now) {
            GiveUp(&places_[i]);
        }
    }
}

int WaitingConnections::TimeLeft() const {
    const int64_t end = std::ranges::min_element(places_, {}, &Place::end)->end;
    if (end == INT64_MAX) {
        return -1;
    }
    const int64_t left = std::clamp<int64_t>(end - MonotonicMicroseconds(), 0, kLongestWait);
    return static_cast<int>(left) / 1000 + 1;
}

}  // namespace discovery
