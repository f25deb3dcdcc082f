// The commands that only look.
#pragma once

#include "ctl/session.h"

namespace ctl {

Status List(Session &session);
Status Show(Session &session);

}  // namespace ctl
