// The discovery client: finds every unit on the LAN that runs the native server.
#pragma once

#include <cstdint>

#include "unit/unit_info.h"

// Runs one discovery, which takes 1.6 seconds. `device` is the interface to send on (null: all
// whose names begin with "eth"), `filter` a project name, letter case ignored, or null, `network` a
// network number in network order or 0. *list must be null on entry; it becomes a malloc array in
// descending order of the MAC texts, which the caller frees. A unit is listed when it was heard at
// least twice. Returns the number of units, or -1 when nothing was received at all.
[[nodiscard]] int TQ_GetAllUnit(const char *device, UnitInfo **list, const char *filter,
                                uint32_t network);

// One collection, half of a discovery: every record received that is one to keep, copies included.
// Returns their number.
[[nodiscard]] int TQ_SubGetAllUnit(const char *device, UnitInfo **list, const char *filter,
                                   uint32_t network);

// 1 to keep the record, 0 to drop it.
[[nodiscard]] int TQ_Filter(const UnitInfo *record, const char *filter, uint32_t network);

// The comparator of qsort: descending order of the MAC texts.
int TQ_SortUnitInfo(const void *a, const void *b);
