#include "common/text_file.h"

#include <fcntl.h>

#include "common/owners.h"

TextFile::TextFile(const char *path) {
    UniqueFd descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (descriptor) {
        file_.reset(fdopen(descriptor.get(), "r"));
    }
    if (file_) {
        static_cast<void>(descriptor.release());
    }
}
