// The client side of two KIRVEX operations, for tools that manage units.
#pragma once

#include "common/unit_record.h"

// Broadcasts a search on an interface (null: "eth0") and collects answers for a second. Each is
// appended to *list, a malloc array that the caller frees; it must be null on entry. Returns the
// number of units found.
int KIRVEX_DevSearch(const char *device, UnitInfo **list);

// Asks the unit at `target`, a dotted IPv4 address, to take name, address, netmask and gateway of
// `unit`, whose `mac` says which unit is meant. Returns 0, also when no answer came within a second
// or only refusals did; -1 when the request could not be sent.
int KIRVEX_SetBasicInfo(const char *device, const char *target, const UnitInfo *unit);
