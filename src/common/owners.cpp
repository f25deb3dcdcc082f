#include "common/owners.h"

#include <unistd.h>

#include <cstring>

void COM_CloseFd(int *descriptor) {
    if (*descriptor >= 0) {
        close(*descriptor);
        *descriptor = -1;
    }
}

bool IsOrdinaryEntry(const dirent &entry) {
    static constexpr char kOwnEntries[][11] = {".", "..", "lost+found"};
    for (const char *own : kOwnEntries) {
        if (strcmp(entry.d_name, own) == 0) {
            return false;
        }
    }
    return true;
}
