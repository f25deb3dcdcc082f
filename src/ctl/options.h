// The command line of tqctl.
#pragma once

#include "ctl/clock.h"
#include "ctl/status.h"

namespace ctl {

enum class Command { kList, kShow, kSet, kCheckPassword, kPassword, kNone };

inline constexpr int kMostLinks = 32;

struct Options {
    Command command;
    const char *unit;
    const char *interfaces[kMostLinks];
    int interfaceCount;
    Milliseconds listening;  // 0: as long as it takes
    Milliseconds patience;   // with a unit that is to answer

    // What was given with an option, null without it; an option that takes no value has its name.
    const char *address;
    const char *gateway;
    const char *dns;
    const char *dhcp;
    const char *dryRun;
    const char *project;
    const char *json;
    const char *plain;
    const char *format;
    const char *watch;
    const char *via;
    const char *yes;
    const char *wait;
    const char *account;
    const char *passwordFile;
    const char *newPasswordFile;
    const char *passwordStdin;
    const char *interface;  // the last of all
    const char *time;
    const char *verbose;
    const char *help;
    const char *version;
};

// Reads the command line into zeroed options. Returns when there is a command to carry out, and not
// when everything has been said, as for --help and for what can't be understood.
void ReadOptions(int argc, char **argv, Options *options);

}  // namespace ctl
