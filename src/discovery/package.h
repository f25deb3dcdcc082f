// The native protocol's package: comma-separated text that begins with "Moravelle" and a two-digit
// type, ended by a zero byte, every byte inverted, in Base64.
#pragma once

#include <cstddef>

#include "unit/unit_info.h"

enum TQ_PackageType : int {
    TQ_PACKAGE_QUERY = 0,          // asks every unit for its record; carries the sender's model
    TQ_PACKAGE_UNIT_INFO = 1,      // one unit's record
    TQ_PACKAGE_LIST_REQUEST = 2,   // asks for the records of all units on the LAN
    TQ_PACKAGE_NETWORK_SETUP = 3,  // new settings for the unit that its identity fields name
};

// Bytes of an encoded package's buffer, terminator included.
inline constexpr size_t kPackageSize = 16384;

// Builds a package into `out` (kPackageSize bytes, zero-terminated Base64). `device` (null: "eth0")
// is the interface whose addresses this unit reports; `info` is what a network setup carries. Lists
// are not requested by this program: that type is refused like an unknown one. Returns 0; -1 when
// nothing was built, as always while the interface has no address.
int TQ_CreatePackage(const char *device, int type, char *out, const UnitInfo *info);

// Reads a zero-terminated Base64 text into a zeroed record. Returns the type, or -1; a package with
// too few fields leaves "count/11" in the note.
int TQ_ParserPackage(const char *text, UnitInfo *record);

// Bytes of the text of one record whose every field is full, zero byte included.
inline constexpr size_t kUnitTextSize = sizeof "Moravelle,01" + offsetof(UnitInfo, mtu);

// Encodes a package as it goes on the wire into `out` (kPackageSize bytes): a query in the name of
// `model`, or a record of any other type exactly as it is, which needs no unit of this machine's
// own. Returns its bytes, the zero byte included.
size_t EncodeQuery(const char *model, char *out);
size_t EncodeUnit(int type, const UnitInfo &info, char *out);

// Writes the text of one record, not yet inverted, into `out` (kUnitTextSize bytes). Returns its
// length with the zero byte that ends it.
size_t WriteUnitText(int type, const UnitInfo &info, char *out);
