#include "common/unique_file.h"

UniqueFile OpenFile(const char *path, const char *mode) {
    char closing[8];
    snprintf(closing, sizeof closing, "%se", mode);
    return UniqueFile(fopen(path, closing));
}
