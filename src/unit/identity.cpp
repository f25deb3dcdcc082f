#include "unit/identity.h"

#include <unistd.h>

#include <cstdio>

#include "common/first_line.h"

static constexpr int kDefaultTriggerPort = 80;

int unit::AppendModelName(char *buf, int length, int room) {
    return AppendFirstLine("/etc/Model", buf, length, room);
}

int unit::AppendProjName(char *buf, int length, int room) {
    return AppendFirstLine("/etc/Proj", buf, length, room);
}

int unit::AppendTriggerPort(char *buf, int length, int room) {
    const int result = AppendFirstLine("/etc/Port", buf, length, room);
    if (result == -1 && buf && length > 0) {
        snprintf(buf, static_cast<size_t>(length), "%d", kDefaultTriggerPort);
    }
    return result;
}

int COM_GetModelName(char *buf, int length) {
    return unit::AppendModelName(buf, length, length);
}

int COM_GetProjName(char *buf, int length) {
    return unit::AppendProjName(buf, length, length);
}

int COM_GetUnitName(char *buf, int length) {
    const int result = length > 0 ? gethostname(buf, static_cast<size_t>(length)) : -1;
    if (result == -1 && length > 0) {
        WriteUnknown(buf, length);
    }
    return result;
}

int COM_GetNote(char *buf, int length) {
    COM_GetFileContent("/etc/Note", buf, length);
    return 0;
}

int COM_GetTriggerPort(char *buf, int length) {
    return unit::AppendTriggerPort(buf, length, length);
}
