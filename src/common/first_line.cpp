#include "common/first_line.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/owners.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr MessageOrigin kOrigin = TQ_ORIGIN("COM_GetFileContent");

// Bytes after which a file is left alone, however little of it has been of use.
static constexpr size_t kLongestFile = size_t{64} << 20;

static int ReadFirstLine(int file, char *buf, int length, int room) {
    char chunk[256];
    constexpr ssize_t kMost = sizeof chunk - 1;
    int result = -1;
    size_t total = 0;
    // A file that gives less than was asked for has come to its end.
    for (ssize_t count = kMost; count == kMost && length > 1 && total < kLongestFile;) {
        count = read(file, chunk, kMost);
        if (count < 1) {
            break;
        }
        total += static_cast<size_t>(count);
        chunk[count] = '\0';
        int base = static_cast<int>(strnlen(buf, static_cast<size_t>(room)));
        int copied = 0;
        for (; copied < length - 1; ++copied) {
            const char c = chunk[copied];
            if (c == '\0' || c == '\r' || c == '\n') {
                break;
            }
            if (base < room - 1) {
                buf[base++] = c;
            }
        }
        buf[base < room ? base : room - 1] = '\0';
        length -= copied;
        result = 0;
    }
    return result;
}

void WriteUnknown(char *buf, int length) {
    snprintf(buf, static_cast<size_t>(length), "%.*s", length, "unknown");
}

int AppendFirstLine(const char *path, char *buf, int length, int room) {
    if (!path || !buf || length <= 0) {
        TQ_LOG_FOR(kOrigin, "input error : (pFileName, pBuf, len) = (%p, %p, %d)\n",
                   static_cast<const void *>(path), static_cast<void *>(buf), length);
        if (buf && length > 0) {
            WriteUnknown(buf, length);
        }
        return -1;
    }
    int result = -1;
    // Without O_NONBLOCK a pipe in the file's place would hold the program until somebody writes.
    const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file) {
        result = ReadFirstLine(file.get(), buf, length, room);
    } else if (errno != ENOENT) {
        TQ_LOG_FOR(kOrigin, "open(%s) error : %m\n", path);
    }
    if (result == -1) {
        WriteUnknown(buf, length);
    }
    return result;
}

int COM_GetFileContent(const char *path, char *buf, int length) {
    return AppendFirstLine(path, buf, length, length);
}
