#include "common/utf8.h"

#include <cstring>

uint32_t ReadCodePoint(const char *text, size_t *length) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(text);
    *length = 1;
    if (bytes[0] < 0x80) {
        return bytes[0];
    }
    const size_t size = bytes[0] >= 0xF0 ? 4 : bytes[0] >= 0xE0 ? 3 : 2;
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    uint32_t code = bytes[0] & (0xFFU >> (size + 1));
    for (size_t i = 1; i < size; ++i) {
        if ((bytes[i] & 0xC0) != 0x80) {  // the terminator included
            return kNoCodePoint;
        }
        code = code << 6 | (bytes[i] & 0x3F);
    }
    const bool valid = bytes[0] >= 0xC2 && bytes[0] <= 0xF4 && code >= kLeast[size] &&
                       code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    if (!valid) {
        return kNoCodePoint;
    }
    *length = size;
    return code;
}

static bool IsHarmless(uint32_t code, size_t length) {
    const bool control = code < 0x20 ? code != '\t' && code != '\n' : code >= 0x7F && code < 0xA0;
    return !control && (code != kNoCodePoint || length > 1);
}

void MaskControls(char *text) {
    size_t length;
    for (; *text != '\0'; text += length) {
        const uint32_t code = ReadCodePoint(text, &length);
        if (!IsHarmless(code, length)) {
            memset(text, '?', length);
        }
    }
}
