// This unit's own record, and records on the screen.
#pragma once

#include "common/unit_record.h"

// Fills the record for one interface (null: "eth0"). The caller zeroes it before the first filling;
// a record that is filled again without that gets each identity text appended to the one it holds.
// Such a text may run on into the fields behind it, never past the record. Returns the sum of the
// results of all lookups: 0 when all succeeded, else minus the number that failed.
int COM_GetUnitInfo(UnitInfo *record, const char *device);

namespace unit {

class FactSource;

// The same through a source of the caller's.
int FillUnitInfo(UnitInfo *record, const char *device, FactSource &facts);

}  // namespace unit

// Prints "[i/count]" and the fields of each record.
void COM_ShowAllUnitInfo(int count, const UnitInfo *records);

// Prints the fields of one record, all but the MTU, in four lines.
void COM_ShowUnitInfo(const UnitInfo *record);
