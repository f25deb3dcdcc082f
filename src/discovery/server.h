// The native server: answers queries and list requests, and applies network settings.
#pragma once

#include <cstdint>

#include "config/config_file.h"
#include "unit/unit_info.h"

// Serves until the process is killed. A null `pidFile` means "/var/run/TQ.pid"; `device` is the
// interface for replies to queries, null for all whose names begin with "eth".
[[noreturn]] void TQ_Server_MORA(const char *pidFile, const char *device, TQ_Cfg *cfg);

// 0 when both records are there and name the same unit: model, proj, name, trigger_port, mac and
// dev are equal; else -1. The other fields carry settings and are not compared.
int TQ_CheckUnitInfo(const UnitInfo *own, const UnitInfo *package);

// Broadcasts a network setup package made from `info` on an interface. For a setup tool; the server
// does not send any. Returns the result of COM_SendUDPBroadcast, or -1 when there was no package.
int TQ_SendNetworkSetupPkg(const char *device, uint16_t port, const UnitInfo *info);
