// The commands about the administrator of a KIRVEX unit.
#pragma once

#include "ctl/ask.h"
#include "ctl/session.h"

namespace ctl {

// Checks the account of a command line, and reads its password.
Status ReadCredentials(const Options &options, Secret *password);

// What a unit means that refuses without a reason.
Status FailLogin();

Status CheckPassword(Session &session);
Status ChangePassword(Session &session);

}  // namespace ctl
