#include "ctl/status.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace ctl {

__attribute__((format(printf, 1, 0))) static void Print(const char *format, va_list arguments) {
    fputs("tqctl: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
}

void Complain(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Print(format, arguments);
    va_end(arguments);
}

void Fail(Status status, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Print(format, arguments);
    va_end(arguments);
    exit(status);
}

}  // namespace ctl
