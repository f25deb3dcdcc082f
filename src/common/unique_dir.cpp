#include "common/unique_dir.h"

#include <cstring>

bool IsOrdinaryEntry(const dirent &entry) {
    return strcmp(entry.d_name, ".") != 0 && strcmp(entry.d_name, "..") != 0 &&
           strcmp(entry.d_name, "lost+found") != 0;
}
