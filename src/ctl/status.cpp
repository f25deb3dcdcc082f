#include "ctl/status.h"

#include <cstdarg>
#include <cstdio>

namespace ctl {

Status Fail(Status status, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("tqctl: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    return status;
}

}  // namespace ctl
