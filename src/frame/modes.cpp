#include "frame/modes.h"

#include <climits>
#include <cstring>

#include "common/owners.h"
#include "common/text.h"
#include "common/text_file.h"
#include "discovery/client.h"
#include "discovery/server.h"
#include "frame/message.h"
#include "kirvex/server.h"

static constexpr char kSource[] = "TQ";
static constexpr unsigned kKirvexBrand = 16;

int TQ_Client(const char *device, const char *filter) {
    UnitInfo *list = nullptr;
    const int count = TQ_GetAllUnit(device, &list, filter, 0);
    const HeapBlock<UnitInfo> owner(list);
    if (count > 0) {
        COM_ShowAllUnitInfo(count, list);
    } else {
        TQ_LOG("TQ_GetAllUnit() = %d\n", count);
    }
    return count;
}

// The unsigned decimal number that follows leading blanks; one too large stays at UINT_MAX.
static unsigned ParseBrand(const char *text) {
    text += strspn(text, " \t");
    unsigned brand = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        const unsigned digit = static_cast<unsigned>(*text - '0');
        brand = brand > (UINT_MAX - digit) / 10 ? UINT_MAX : brand * 10 + digit;
    }
    return brand;
}

unsigned frame::ReadBrand(const char *path) {
    TextFile file(path);
    if (!file) {
        TQ_LOG_FOR(TQ_ORIGIN("TQ_Server"), "fopen(\"%s\") failed: %m\n", path);
        return 0;
    }
    unsigned brand = 0;
    char line[256];
    while (file.ReadLine(line)) {
        const char *colon = COM_StrNCaseStr(line, "brandid") ? strchr(line, ':') : nullptr;
        if (colon) {
            brand = ParseBrand(colon + 1);
        }
    }
    return brand;
}

int TQ_Server(const char *pidFile, const char *device, TQ_Cfg *cfg) {
    if (frame::ReadBrand("/proc/cpuinfo") == kKirvexBrand) {
        return TQ_Server_KIRVEX(pidFile, device);
    }
    TQ_Server_MORA(pidFile, device, cfg);
}
