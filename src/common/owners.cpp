#include "common/owners.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

void COM_CloseFd(int *descriptor) {
    if (*descriptor >= 0) {
        close(*descriptor);
        *descriptor = -1;
    }
}

UniqueFile OpenFile(const char *path, const char *mode) {
    char closing[8];
    snprintf(closing, sizeof closing, "%se", mode);
    return UniqueFile(fopen(path, closing));
}

UniqueFile OpenWithoutWaiting(const char *path, int flags, const char *mode) {
    UniqueFd descriptor(open(path, flags | O_CLOEXEC | O_NONBLOCK, 0666));
    UniqueFile file(descriptor ? fdopen(descriptor.get(), mode) : nullptr);
    if (file) {
        static_cast<void>(descriptor.release());
    }
    return file;
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
