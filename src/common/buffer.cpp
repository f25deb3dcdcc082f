#include "common/buffer.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frame/message.h"

static constexpr char kSource[] = "COMMON";

void *COM_ReallocAndCopyBuf(int newSize, void **buffer, int offset, const void *source,
                            int length) {
    const bool fits = offset >= 0 && length >= 0 && newSize > 0 && length <= newSize - offset;
    errno = fits ? errno : EINVAL;
    void *grown = fits ? realloc(*buffer, static_cast<size_t>(newSize)) : nullptr;
    if (!grown) {
        TQ_LOG("REALLOC(%d) failed : %m\n", newSize);
        return nullptr;
    }
    uint8_t *bytes = static_cast<uint8_t *>(grown);
    if (offset < newSize) {
        memset(bytes + offset, 0, static_cast<size_t>(newSize - offset));
    }
    *buffer = grown;
    if (length > 0) {
        memmove(bytes + offset, source, static_cast<size_t>(length));
    }
    return grown;
}

int COM_XorBuffer(void *buffer, int length) {
    if (!buffer) {
        return -1;
    }
    uint8_t *bytes = static_cast<uint8_t *>(buffer);
    for (int i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(~bytes[i]);
    }
    return 0;
}
