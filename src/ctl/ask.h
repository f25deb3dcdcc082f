// What only the person in front of the terminal can answer.
#pragma once

#include "ctl/options.h"
#include "ctl/status.h"

namespace ctl {

// A password, wiped when it is no longer needed.
struct Secret {
    char text[64];

    Secret() { text[0] = '\0'; }
    Secret(const Secret &) = delete;
    Secret &operator=(const Secret &) = delete;
    ~Secret();
};

// Reads the current password of an account: from a file or standard input if the options say so,
// else from the terminal, without echo.
void ReadPassword(const Options &options, Secret *password);

// Reads the new one, from the terminal twice.
void ReadNewPassword(const Options &options, Secret *password);

// Asks on the terminal whether an interface may be given an address; no without one.
bool Confirm(const char *detour);

}  // namespace ctl
