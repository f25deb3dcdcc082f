#include "common/owners.h"

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

bool IsOrdinaryEntry(const dirent &entry) {
    return strcmp(entry.d_name, ".") != 0 && strcmp(entry.d_name, "..") != 0 &&
           strcmp(entry.d_name, "lost+found") != 0;
}
