// Requests to one KIRVEX unit that carry credentials, and their replies.
#pragma once

#include <cstdint>

#include "ctl/clock.h"
#include "ctl/links.h"
#include "ctl/unit.h"
#include "kirvex/request.h"

namespace ctl {

// Where a unit is reached.
struct Way {
    const Link &link;
    Address source;  // this machine's address to ask from, 0 for the usual one
    bool verbose;
};

// A reply to a request to set or to change, or none.
struct Verdict {
    bool answered;
    uint32_t code;   // kx::kSuccess or kx::kFailure
    uint32_t error;  // the number behind it
    uint32_t status;
    uint32_t waitSeconds;
};

// The settings that a unit says it has.
kx::Settings SettingsOf(const Unit &unit);

// Has a unit set its basic information, and waits for its reply. A request without a reply is
// repeated: to set the same twice does no harm.
Verdict RequestSettings(const Way &way, const Unit &unit, const kx::Account &account,
                        const kx::Settings &settings, Milliseconds wait);

// Has a unit log in as an account, and do nothing else: the answer is error kx::kErrorCameraName
// when the password is right.
Verdict RequestLogin(const Way &way, const Unit &unit, const kx::Account &account,
                     Milliseconds wait);

// Has a unit change the password of an account, once.
Verdict RequestPassword(const Way &way, const Unit &unit, const kx::Account &account,
                        const char *password, Milliseconds wait);

}  // namespace ctl
