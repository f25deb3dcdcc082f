// The time that passes, in the unit that poll takes.
#pragma once

#include <cstdint>

namespace ctl {

using Milliseconds = int;

// The milliseconds since some point in the past, modulo 2^32.
uint32_t Ticks();

// Counts from the moment at which it is made, for at most 24 days.
class Stopwatch {
  public:
    Milliseconds Passed() const { return static_cast<Milliseconds>(Ticks() - start_); }

    // Waits until there is something to read on a descriptor. Returns false when `limit` has
    // passed before.
    bool AwaitInput(int descriptor, Milliseconds limit) const;

  private:
    uint32_t start_ = Ticks();
};

// Does nothing for so long.
void Pause(Milliseconds time);

}  // namespace ctl
