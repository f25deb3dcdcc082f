#include "ctl/text.h"

#include <sys/ioctl.h>

#include <cstdio>
#include <cstring>

#include "common/utf8.h"

namespace ctl {

namespace {

// A run of code points.
struct Range {
    uint32_t first;
    uint32_t last;
};

// A code point of four bytes, each as \xNN.
constexpr size_t kLongestEscape = 16;

}  // namespace

// Control characters, and those that turn the direction of what follows.
static constexpr Range kSteering[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x200E, 0x200F},
                                      {0x2028, 0x202E}, {0x2066, 0x2069}, {0xFEFF, 0xFEFF}};

// Two columns wide, and none.
static constexpr Range kWide[] = {{0x1100, 0x115F}, {0x2E80, 0xA4CF},   {0xAC00, 0xD7A3},
                                  {0xF900, 0xFAFF}, {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
                                  {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD}};
static constexpr Range kNarrow[] = {{0x0300, 0x036F}, {0x200B, 0x200D}, {0xFE00, 0xFE0F}};

template <size_t kCount>
static bool IsIn(const Range (&ranges)[kCount], uint32_t code) {
    for (const Range &range : ranges) {
        if (code >= range.first && code <= range.last) {
            return true;
        }
    }
    return false;
}

void MakeHarmless(const char *text, char (&out)[kCellSize]) {
    size_t used = 0;
    size_t length;
    for (; *text != '\0' && used + kLongestEscape < kCellSize; text += length) {
        const uint32_t code = ReadCodePoint(text, &length);
        if (!IsIn(kSteering, code) && (code != kNoCodePoint || length > 1)) {
            memcpy(out + used, text, length);
            used += length;
            continue;
        }
        for (size_t i = 0; i < length; ++i) {
            used += static_cast<size_t>(
                snprintf(out + used, 5, "\\x%02x", static_cast<unsigned char>(text[i])));
        }
    }
    out[used] = '\0';
}

static size_t CodePointWidth(uint32_t code) {
    return IsIn(kWide, code) ? 2 : IsIn(kNarrow, code) ? 0 : 1;
}

size_t DisplayWidth(const char *text) {
    size_t width = 0;
    size_t length;
    for (; *text != '\0'; text += length) {
        width += CodePointWidth(ReadCodePoint(text, &length));
    }
    return width;
}

void PrintCell(const char *text, size_t width) {
    const size_t whole = DisplayWidth(text);
    const bool cut = width > 0 && whole > width;
    size_t left = cut ? width - 1 : width > whole ? width : whole;
    const char *end = text;
    for (size_t length; *end != '\0'; end += length) {
        const size_t next = CodePointWidth(ReadCodePoint(end, &length));
        if (next > left) {
            break;
        }
        left -= next;
    }
    printf("%.*s%s%*s", static_cast<int>(end - text), text, cut ? "~" : "", static_cast<int>(left),
           "");
}

int TerminalColumns(int descriptor) {
    winsize size;
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : -1;
}

void PrintJsonString(const char *text) {
    putchar('"');
    size_t length;
    for (; *text != '\0'; text += length) {
        const uint32_t code = ReadCodePoint(text, &length);
        if (code == '"' || code == '\\') {
            printf("\\%c", static_cast<char>(code));
        } else if (IsIn(kSteering, code) || code == kNoCodePoint) {
            printf("\\u%04x", static_cast<unsigned>(code));
        } else {
            printf("%.*s", static_cast<int>(length), text);
        }
    }
    putchar('"');
}

}  // namespace ctl
