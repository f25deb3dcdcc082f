#include "config/in_place_edit.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/owners.h"
#include "common/text.h"

InPlaceEdit::InPlaceEdit(const char *path, const InPlaceEditRules &rules,
                         const MessageOrigin &origin)
    : path_(path), origin_(origin) {
    CopyText(temporary_, rules.temporaryFile);
    UniqueFd created(mkstemp(temporary_));
    if (!created) {
        if (rules.reportCreation) {
            TQ_LOG_FOR(origin_, "mkstemp() failed : %s\n", strerror(errno));
        }
        temporary_[0] = '\0';
    } else {
        created.reset();
        copy_ = OpenFile(temporary_, "w+");
        if (!copy_) {
            TQ_LOG_FOR(origin_, "fopen(%s) failed : %s\n", temporary_, strerror(errno));
        }
    }
    original_ = OpenFile(path_, "r+");
    if (!original_ && rules.createMissing && errno == ENOENT) {
        original_ = OpenFile(path_, "w+");
    }
    if (!original_) {
        TQ_LOG_FOR(origin_, "fopen(%s) failed : %s\n", path_, strerror(errno));
    }
}

InPlaceEdit::~InPlaceEdit() {
    Close();
    if (temporary_[0] != '\0' && unlink(temporary_) == -1) {
        TQ_LOG_FOR(origin_, "unlink(%s) failed : %s\n", temporary_, strerror(errno));
    }
}

static bool WriteAll(int file, const char *bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = write(file, bytes, count);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

bool InPlaceEdit::CopyBack() {
    // Past the streams' buffers, so that a full disk is noticed at the write that it refuses.
    const int from = fileno(copy_.get());
    const int to = fileno(original_.get());
    if (!Flush() || lseek(from, 0, SEEK_SET) == -1 || lseek(to, 0, SEEK_SET) == -1) {
        return false;
    }
    char block[4096];
    ssize_t count;
    bool good = true;
    while (good && (count = read(from, block, sizeof block)) != 0) {
        good = count > 0 && WriteAll(to, block, static_cast<size_t>(count));
    }
    length_ = static_cast<long>(lseek(to, 0, SEEK_CUR));
    return good;
}

void InPlaceEdit::Close() {
    copy_.reset();
    original_.reset();
}
