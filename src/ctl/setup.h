// The command that gives a unit new network settings.
#pragma once

#include "ctl/session.h"

namespace ctl {

// What is wanted of a unit.
struct Wish {
    bool dhcp;
    Address address;
    int prefix;
    Address gateway;  // 0: none
    Address dns;      // 0: the one that the unit has
};

// Reads the wish of a command line. Whatever is wrong with it alone is refused here.
void ReadWish(const Options &options, Wish *wish);

void Set(Session &session);

}  // namespace ctl
