#include "frame/message.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "common/owners.h"
#include "common/utf8.h"

namespace {

// Whoever reports an error may still need it afterwards.
struct ErrnoKept {
    const int value = errno;
    ~ErrnoKept() { errno = value; }
};

}  // namespace

static unsigned messages;

unsigned COM_CountMessages() {
    return messages;
}

int COM_Message(const char *file, int line, const char *function, const char *format, ...) {
    const ErrnoKept kept;
    ++messages;
    size_t size = 256;
    HeapBlock<char> text(static_cast<char *>(malloc(size)));
    if (!text) {
        return -1;
    }
    while (text) {
        va_list arguments;
        va_start(arguments, format);
        errno = kept.value;  // what %m tells of, whatever the memory has made of it
        const int length = vsnprintf(text.get(), size, format, arguments);
        va_end(arguments);
        if (length >= 0 && static_cast<size_t>(length) < size) {
            break;
        }
        // A negative length does not tell how much room the text takes.
        size = length >= 0 ? static_cast<size_t>(length) + 1 : size * 2;
        char *grown = static_cast<char *>(realloc(text.get(), size));
        if (grown) {
            static_cast<void>(text.release());
        }
        text.reset(grown);
    }
    // Other units' texts are shown on a terminal, not obeyed by it; a file gets them as they are.
    if (text && isatty(STDOUT_FILENO)) {
        MaskControls(text.get());
    }
    if (text && !function) {
        return printf("%s,%d: %s", file, line, text.get());
    }
    return printf("%s,%d:%s(): %s", file, line, function ? function : "",
                  text ? text.get() : "Failed to print");
}
