#include "unit/interfaces.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "common/text.h"
#include "common/text_file.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";

int COM_GetAllNetDevice(NetDeviceName **list) {
    return COM_GetDeviceFromProc(list, "/proc/net/dev");
}

static NetDeviceName NameFromLine(const char *line, const char *colon) {
    NetDeviceName name{};
    size_t length = 0;
    for (; line < colon && length < sizeof name.text - 1; ++line) {
        if (isalnum(static_cast<unsigned char>(*line))) {
            name.text[length++] = *line;
        }
    }
    return name;
}

// Growing by one name at a time would scatter a daemon's heap: an answer to every query asks.
static constexpr int kGrowth = 8;

static bool MakeRoom(NetDeviceName **list, int count) {
    void *grown = realloc(*list, static_cast<size_t>(count) * sizeof(NetDeviceName));
    if (grown) {
        *list = static_cast<NetDeviceName *>(grown);
    }
    return grown != nullptr;
}

int COM_GetDeviceFromProc(NetDeviceName **list, const char *path) {
    if (*list) {
        TQ_LOG("Warnning!! (*pBuf != NULL)\n");
        return -1;
    }
    TextFile file(path);
    if (!file) {
        TQ_LOG("fopen(%s) error : %m\n", path);
        return -1;
    }
    int count = 0;
    char line[256];
    while (file.ReadLine(line)) {
        const char *colon = strchr(line, ':');
        if (!colon) {
            continue;
        }
        if (count % kGrowth == 0 && !MakeRoom(list, count + kGrowth)) {
            TQ_LOG("REALLOC() failed : %m\n");
            continue;
        }
        (*list)[count++] = NameFromLine(line, colon);
    }
    return count;
}
