#include "common/text_file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

static constexpr char kKernelTables[] = "/proc/";

static KeptTables *kept;

KeptTables::KeptTables() {
    kept = this;
}

KeptTables::~KeptTables() {
    kept = nullptr;
}

KeptTables::operator bool() const {
    return interfaces_ || routes_;
}

void KeptTables::Close() {
    interfaces_.reset();
    routes_.reset();
}

UniqueFd *KeptTables::PlaceFor(const char *path) {
    if (kept && strcmp(path, "/proc/net/dev") == 0) {
        return &kept->interfaces_;
    }
    if (kept && strcmp(path, "/proc/net/route") == 0) {
        return &kept->routes_;
    }
    return nullptr;
}

// What stands in for a table may be replaced by another file. And where descriptors are short, none
// is kept that a file or a client may need.
static bool MayBeKept(int file) {
    static constexpr rlim_t kSpare = 64;
    struct statfs about;
    rlimit most;
    return fstatfs(file, &about) == 0 && about.f_type == PROC_SUPER_MAGIC &&
           getrlimit(RLIMIT_NOFILE, &most) == 0 &&
           static_cast<rlim_t>(file) + kSpare < most.rlim_cur;
}

// A read of a kernel's table may end with any of its records; one of another file that brings less
// than it was asked for has met the end.
TextFile::TextFile(const char *path)
    : keep_(KeptTables::PlaceFor(path)),
      comesInPieces_(strncmp(path, kKernelTables, strlen(kKernelTables)) == 0) {
    if (keep_) {
        file_ = std::move(*keep_);
    }
    if (file_ && lseek(file_.get(), 0, SEEK_SET) == 0) {
        return;
    }
    file_.reset(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (keep_ && file_ && !MayBeKept(file_.get())) {
        keep_ = nullptr;
    }
}

TextFile::TextFile(UniqueFd file) : file_(std::move(file)), comesInPieces_(true) {}

TextFile::~TextFile() {
    if (keep_ && !failed_) {
        *keep_ = std::move(file_);
    }
}

bool TextFile::ReadBlock() {
    if (ended_) {
        return false;
    }
    const ssize_t count = read(file_.get(), block_, sizeof block_);
    failed_ = count < 0;
    ended_ = count <= 0 || (!comesInPieces_ && static_cast<size_t>(count) < sizeof block_);
    next_ = 0;
    end_ = count > 0 ? static_cast<size_t>(count) : 0;
    return count > 0;
}

size_t TextFile::ReadPiece(char *line, size_t size) {
    size_t length = 0;
    while (length < size - 1 && (next_ < end_ || ReadBlock())) {
        const size_t most = std::min(end_ - next_, size - 1 - length);
        const char *from = block_ + next_;
        const char *lineEnd = static_cast<const char *>(memchr(from, '\n', most));
        const size_t count = lineEnd ? static_cast<size_t>(lineEnd + 1 - from) : most;
        memcpy(line + length, from, count);
        next_ += count;
        length += count;
        if (lineEnd) {
            break;
        }
    }
    line[length] = '\0';
    return failed_ ? 0 : length;
}
