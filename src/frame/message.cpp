#include "frame/message.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

__attribute__((format(printf, 4, 0))) static int Print(const char *file, int line,
                                                       const char *function, const char *format,
                                                       va_list arguments) {
    const ErrnoKept kept;
    ++messages;
    size_t size = 256;
    HeapBlock<char> text = NewBlock(size);
    if (!text) {
        return -1;
    }
    while (text) {
        va_list afresh;
        va_copy(afresh, arguments);
        errno = kept.value;  // what %m tells of, whatever the memory has made of it
        const int length = vsnprintf(text.get(), size, format, afresh);
        va_end(afresh);
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

int COM_Message(const char *file, int line, const char *function, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = Print(file, line, function, format, arguments);
    va_end(arguments);
    return written;
}

int frame::Report(MessageOrigin origin, int line, const char *format, ...) {
    const char *source = reinterpret_cast<const char *>(origin);
    const char *function = source + strlen(source) + 1;
    va_list arguments;
    va_start(arguments, format);
    const int written =
        Print(source, line, *function != '\0' ? function : nullptr, format, arguments);
    va_end(arguments);
    return written;
}
