// The command line of tqctl.
#pragma once

#include "ctl/clock.h"
#include "ctl/status.h"

namespace ctl {

enum class Command { kList, kShow, kSet, kCheckPassword, kPassword, kNone };

inline constexpr int kMostLinks = 32;

struct Options {
    const char *unit = nullptr;
    const char *interfaces[kMostLinks];
    int interfaceCount = 0;
    Milliseconds time = 0;  // 0: as long as it takes
    Milliseconds wait = 20000;
    Command command = Command::kNone;
    bool help = false;
    bool version = false;
    bool verbose = false;
    bool json = false;
    bool plain = false;
    bool watch = false;
    bool dhcp = false;
    bool dryRun = false;
    bool yes = false;
    bool passwordStdin = false;
    const char *format = nullptr;
    const char *project = nullptr;
    const char *via = nullptr;
    const char *address = nullptr;
    const char *gateway = nullptr;
    const char *dns = nullptr;
    const char *account = "admin";
    const char *passwordFile = nullptr;
    const char *newPasswordFile = nullptr;
};

// Reads the command line. Returns when there is a command to carry out, and not when everything has
// been said, as for --help and for what can't be understood.
void ReadOptions(int argc, char **argv, Options *options);

}  // namespace ctl
