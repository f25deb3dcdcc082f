#include "config/in_place_edit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/text.h"

namespace config {

TerminationHeld::TerminationHeld() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGHUP);
    sigprocmask(SIG_BLOCK, &ending, &before_);
}

TerminationHeld::~TerminationHeld() {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

InPlaceEdit::InPlaceEdit(const char *path, const InPlaceEditRules &rules, MessageOrigin origin)
    : path_(path), rules_(rules), origin_(origin), copy_(OpenCopy()), original_(OpenOriginal()) {}

// It stays open: the same name may stand for somebody else's file a moment later.
UniqueFd InPlaceEdit::OpenCopy() {
    CopyText(temporary_, rules_.temporaryFile);
    UniqueFd copy(mkostemp(temporary_, O_CLOEXEC));
    if (!copy) {
        temporary_[0] = '\0';
        if (rules_.goesOnWithoutCopy) {
            TQ_LOG_FOR(origin_, "mkstemp() failed : %m\n");
        }
    }
    return copy;
}

UniqueFd InPlaceEdit::OpenOriginal() const {
    if (!copy_ && !rules_.goesOnWithoutCopy) {
        return {};
    }
    // Without O_NONBLOCK a pipe in the file's place could hold the program.
    static constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NONBLOCK;
    UniqueFd original(open(path_, kFlags));
    if (!original && rules_.createsMissing && errno == ENOENT) {
        original.reset(open(path_, kFlags | O_CREAT | O_TRUNC, 0666));
    }
    if (!original) {
        TQ_LOG_FOR(origin_, "fopen(%s) failed : %m\n", path_);
    }
    return original;
}

InPlaceEdit::~InPlaceEdit() {
    if (temporary_[0] != '\0' && unlink(temporary_) == -1) {
        TQ_LOG_FOR(origin_, "unlink(%s) failed : %m\n", temporary_);
    }
}

size_t InPlaceEdit::ReadLine(char *line, size_t size) {
    const size_t length = original_.ReadPiece(line, size);
    if (ReadFailed()) {
        // Whoever took this for the end would cut the file to what could be read.
        TQ_LOG_FOR(origin_, "fgets(%s) failed : %m\n", path_);
    }
    return length;
}

// Returns how many bytes were written; errno is set when that are not all.
static size_t WriteAll(int file, const char *bytes, size_t count) {
    size_t done = 0;
    while (done < count) {
        const ssize_t written = write(file, bytes + done, count - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            break;
        }
    }
    return done;
}

void InPlaceEdit::ReportWrite(const char *line, size_t length) const {
    TQ_LOG_FOR(origin_, "fprintf() %s : %m : %.*s", rules_.failed, static_cast<int>(length), line);
}

bool InPlaceEdit::WriteLine(const char *line, size_t length) {
    if (WriteAll(copy(), line, length) == length) {
        return true;
    }
    ReportWrite(line, length);
    return false;
}

// The line of a text, with its line end, that holds the byte at `position`.
static std::string_view LineAt(std::string_view text, size_t position) {
    const size_t before = position == 0 ? text.npos : text.rfind('\n', position - 1);
    const size_t start = before == text.npos ? 0 : before + 1;
    const size_t end = text.find('\n', position);
    text.remove_suffix(end == text.npos ? 0 : text.size() - end - 1);
    text.remove_prefix(start);  // substr() would need the C++ library, to throw
    return text;
}

void InPlaceEdit::ReportCopyBack() const {
    const int error = errno;
    char text[256];
    const off_t start = std::max<off_t>(0, length_ - static_cast<off_t>(sizeof text) / 2);
    const ssize_t count = pread(copy(), text, sizeof text, start);
    const std::string_view line = LineAt({text, static_cast<size_t>(std::max<ssize_t>(count, 0))},
                                         static_cast<size_t>(length_ - start));
    errno = error;
    ReportWrite(line.data(), line.size());
}

static off_t SizeOf(int file) {
    struct stat status;
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : 0;
}

off_t InPlaceEdit::WriteOver(int file, off_t position, off_t textSize, off_t size) {
    bool good = lseek(file, position, SEEK_SET) == position;
    while (good && position < size) {
        char block[4096];
        const off_t wanted = std::min<off_t>(sizeof block, size - position);
        const off_t text = std::clamp<off_t>(textSize - position, 0, wanted);
        memset(block, '\n', sizeof block);
        good = text == 0 || pread(copy(), block, static_cast<size_t>(text), position) == text;
        if (good) {
            const size_t written = WriteAll(file, block, static_cast<size_t>(wanted));
            position += static_cast<off_t>(written);
            good = static_cast<off_t>(written) == wanted;
        }
    }
    return position;
}

bool InPlaceEdit::CopyBack(bool report) {
    const int file = original_.descriptor();
    const off_t before = SizeOf(file);
    const off_t after = SizeOf(copy());
    // A power failure between a text and its length would leave that text cut, or with the end of
    // the other one. So the file has one length while its text changes: the shorter one is followed
    // by empty lines for that moment, which no reader of these files minds.
    if (after > before && WriteOver(file, before, 0, after) == after) {
        fsync(file);
    }
    const off_t size = std::max(before, after);
    const off_t end = WriteOver(file, 0, after, size);
    length_ = std::min(end, after);
    if (end != size) {
        if (report) {
            ReportCopyBack();
        }
        return false;
    }
    return before <= after || Sync();
}

bool InPlaceEdit::Cut() {
    return (original_ ? ftruncate(original_.descriptor(), length_) : truncate(path_, length_)) == 0;
}

bool InPlaceEdit::Sync() {
    // A file that no disk is behind can't be synchronized, and need not be.
    if (fsync(original_.descriptor()) == 0 || errno == EINVAL) {
        return true;
    }
    TQ_LOG_FOR(origin_, "fsync(%s) error : %m\n", path_);
    return false;
}

}  // namespace config
