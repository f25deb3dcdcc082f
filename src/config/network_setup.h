// Applying network settings that came with a native setup package.
#pragma once

#include "common/unit_record.h"
#include "config/config_file.h"

// Rewrites the stanza of the interface `request->dev` in the interfaces file, puts `request->dns`
// into the resolver file, and runs the configured commands. `request->note` is the address method:
// "dhcp", or the method word of a stanza with fixed addresses. Returns 0, or -1 when anything
// failed; then no command has been run.
int TQ_SetupNetwork(const TQ_Cfg *cfg, const UnitInfo *request);
