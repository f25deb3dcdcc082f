// What must not outlive tqctl, however it is stopped: an address that it added, and a terminal
// without echo.
#pragma once

#include <termios.h>

#include <cstddef>

namespace ctl {

// From now on a signal that ends the program first sends `size` bytes (at most 64) to a descriptor.
void SendWhenStopped(int descriptor, const void *message, size_t size);

// From now on such a signal first gives a terminal these settings; a descriptor of -1 takes that
// back.
void RestoreWhenStopped(int terminal, const termios &settings);

}  // namespace ctl
