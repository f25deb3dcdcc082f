#include "ctl/status.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace ctl {

// One write for each line, so that what others print does not come between.
__attribute__((format(printf, 2, 0))) static void Print(const char *prefix, const char *format,
                                                        va_list arguments) {
    char text[1024];
    vsnprintf(text, sizeof text, format, arguments);
    dprintf(STDERR_FILENO, "%s%s\n", prefix, text);
}

void Say(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Print("", format, arguments);
    va_end(arguments);
}

static void (*lastCall)();

void AtEnd(void (*last)()) {
    lastCall = last;
}

void End(Status status) {
    if (lastCall) {
        lastCall();
    }
    exit(status);
}

void Fail(Status status, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Print("tqctl: ", format, arguments);
    va_end(arguments);
    End(status);
}

}  // namespace ctl
