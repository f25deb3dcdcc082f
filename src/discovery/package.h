// The native protocol's package: comma-separated text that begins with "Moravelle" and a two-digit
// type, ended by a zero byte, every byte inverted, in Base64. Bytes in, record out, and back; what
// asks the kernel and prints is in discovery/announce.
#pragma once

#include <cstddef>
#include <span>

#include "common/base64.h"
#include "common/unit_record.h"

enum TQ_PackageType : int {
    TQ_PACKAGE_QUERY = 0,          // asks every unit for its record; carries the sender's model
    TQ_PACKAGE_UNIT_INFO = 1,      // one unit's record
    TQ_PACKAGE_LIST_REQUEST = 2,   // asks for the records of all units on the LAN
    TQ_PACKAGE_NETWORK_SETUP = 3,  // new settings for the unit that its identity fields name
};

namespace discovery {

inline constexpr char kMagic[] = "Moravelle";

// Bytes of the text of one record whose every field is full, zero byte included.
inline constexpr size_t kUnitTextSize = sizeof kMagic + sizeof ",01" - 1 + offsetof(UnitInfo, mtu);

// Bytes of the longest package that is built, terminator included.
inline constexpr size_t kPackageSize = Base64TextSize(kUnitTextSize);

// Writes the text of one record, not yet inverted, into `out` (kUnitTextSize bytes). Returns its
// length with the zero byte that ends it.
size_t WriteUnitText(TQ_PackageType type, const UnitInfo &record, char *out);

// Inverts texts, each with its zero byte, in place, and encodes them into `out`
// (Base64TextSize(texts.size()) bytes, terminated). Returns the number of characters.
size_t EncodeTexts(std::span<char> texts, char *out);

// Encodes a package as it goes on the wire into `out` (kPackageSize bytes): a query in the name of
// `model`, or a record of any other type exactly as it is, which needs no unit of this machine's
// own. Returns its bytes, the zero byte included.
size_t EncodeQuery(const char *model, char *out);
size_t EncodeUnit(TQ_PackageType type, const UnitInfo &record, char *out);

enum class PackageFault {
    kNone,
    kNoMagic,
    kBadType,        // not one of the four, or -1: without a type, or with a field of a wrong form
    kMissingFields,  // "count/11" stands in the record's note
};

struct DecodedPackage {
    PackageFault fault;
    int type;
};

// Reads a package, which ends with the span or its first zero byte, into a zeroed record; the bytes
// are used up.
[[nodiscard]] DecodedPackage DecodePackage(std::span<char> package, UnitInfo *record);

}  // namespace discovery
