// An address that this machine has for the length of one command.
#pragma once

#include "ctl/links.h"
#include "ctl/status.h"

namespace ctl {

// Adds an address to a link, once in a run. It is removed when the program ends, also by a signal,
// and by the kernel after ten minutes in any case.
void AddTemporaryAddress(const Link &link, Address address, int prefix);

}  // namespace ctl
