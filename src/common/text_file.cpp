#include "common/text_file.h"

#include <fcntl.h>

TextFile::TextFile(const char *path) : file_(OpenWithoutWaiting(path, O_RDONLY, "r")) {}
