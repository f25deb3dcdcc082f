// The parser of native packages, on plain texts in their packing and on raw bytes. What it accepts
// must come back the same when it is written and parsed once more; only an address of so many zeros
// that its field cuts it need not be one any more.
#include <cstring>

#include "discovery/announce.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string package = Package({reinterpret_cast<const char *>(data), size});
    UnitInfo record{};
    const int type = TQ_ParserPackage(package.c_str(), &record);
    Require(type >= -1 && type <= TQ_PACKAGE_NETWORK_SETUP);
    COM_ShowAllUnitInfo(1, &record);
    if (type == TQ_PACKAGE_UNIT_INFO) {
        char text[discovery::kUnitTextSize];
        const size_t length = discovery::WriteUnitText(TQ_PACKAGE_UNIT_INFO, record, text);
        Require(length <= sizeof text && text[length - 1] == '\0');
        UnitInfo again{};
        const bool maybeCut = strlen(record.ip) == sizeof record.ip - 1 ||
                              strlen(record.netmask) == sizeof record.netmask - 1;
        const bool same = TQ_ParserPackage(Package(text).c_str(), &again) == type &&
                          memcmp(&record, &again, sizeof record) == 0;
        Require(same || maybeCut);
    }
    return 0;
}
