// The commands about the administrator of a KIRVEX unit.
#pragma once

#include "ctl/ask.h"
#include "ctl/session.h"

namespace ctl {

// Checks the account of a command line, and reads its password.
void ReadCredentials(const Options &options, Secret *password);

// Ends with what a unit means that refuses without a reason.
[[noreturn]] void FailLogin();

void CheckPassword(Session &session);
void ChangePassword(Session &session);

}  // namespace ctl
