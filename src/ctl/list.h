// The commands that only look.
#pragma once

#include "ctl/session.h"

namespace ctl {

void List(Session &session);
void Show(Session &session);

}  // namespace ctl
