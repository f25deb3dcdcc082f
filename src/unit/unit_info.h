// The record of one unit (one appliance on the LAN).
#pragma once

#include <cstdint>

struct UnitInfo {
    char model[32];
    char proj[32];
    char name[64];
    char ip[16];
    char trigger_port[8];
    char netmask[16];
    char gateway[16];
    char dns[16];
    char mac[24];
    char dev[16];
    char note[64];
    int32_t mtu;
};

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
