// The native server: answers queries and list requests, and applies network settings.
#pragma once

#include "config/config_file.h"
#include "unit/unit_info.h"

// Serves until the process is killed. A null `pidFile` means "/var/run/TQ.pid"; `device` is the
// interface for replies to queries, null for all whose names begin with "eth".
[[noreturn]] void TQ_Server_MORA(const char *pidFile, const char *device, TQ_Cfg *cfg);

// 0 when both records are there and name the same unit: model, proj, name, trigger_port, mac and
// dev are equal; else -1. The other fields carry settings and are not compared.
[[nodiscard]] int TQ_CheckUnitInfo(const UnitInfo *own, const UnitInfo *package);
