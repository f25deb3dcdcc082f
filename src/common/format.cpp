#include "common/format.h"

#include <cstdarg>
#include <cstdio>

HeapBlock<char> FormatText(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    return HeapBlock<char>(length < 0 ? nullptr : text);
}
