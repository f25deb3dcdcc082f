// The owner of one in-place edit of a text file.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstddef>

#include "common/owners.h"
#include "common/text_file.h"
#include "frame/message.h"

namespace config {

// What differs between the editors.
struct InPlaceEditRules {
    char temporaryFile[16];  // a mkstemp template
    char failed[6];          // how the message of a failed write spells that word
    // Whether a failing mkstemp gets a message, and the file is opened all the same.
    bool goesOnWithoutCopy;
    bool createsMissing;  // whether a file that is not there is created
};

// Holds back the signals that end the program, as long as the object lives. A file that was left
// half written would take the unit off the network at its next start.
class TerminationHeld {
  public:
    TerminationHeld();
    TerminationHeld(const TerminationHeld &) = delete;
    TerminationHeld &operator=(const TerminationHeld &) = delete;
    ~TerminationHeld();

  private:
    sigset_t before_;
};

// The file is read, its new text is written to a temporary file, and that is copied back over it,
// so that the file keeps its inode, owner and mode. The temporary file goes with the object.
class InPlaceEdit {
  public:
    // `path`, `rules` and `origin` must outlive the object; failures are reported in the name of
    // `origin`.
    InPlaceEdit(const char *path, const InPlaceEditRules &rules, MessageOrigin origin);
    InPlaceEdit(const InPlaceEdit &) = delete;
    InPlaceEdit &operator=(const InPlaceEdit &) = delete;
    ~InPlaceEdit();

    explicit operator bool() const { return original_ && copy_; }

    // Reads the next line with its line end, or size - 1 bytes of it, and a terminator. A line may
    // hold zero bytes. Returns its length; 0 at the end, and when the file can't be read, which
    // ReadFailed tells.
    [[nodiscard]] size_t ReadLine(char *line, size_t size);
    bool ReadFailed() const { return original_.Failed(); }

    // The descriptor that the new text goes to.
    int copy() const { return copy_.get(); }

    // Writes a line to the copy. Returns false, with a message that names it, when it can't be.
    [[nodiscard]] bool WriteLine(const char *line, size_t length);

    // Copies the new text over the file, from its start, and empty lines over what the old one has
    // beyond it. Returns false when a read or write failed; `report` says whether that gets a
    // message.
    [[nodiscard]] bool CopyBack(bool report);

    // Cuts the file to what CopyBack has written. Returns false with errno set.
    [[nodiscard]] bool Cut();

    // Waits until the file's new text is on the disk, so that a power failure can't take it back.
    // Returns false, with a message, when it did not get there.
    [[nodiscard]] bool Sync();

    // The number of bytes of the new text that CopyBack has written.
    off_t length() const { return length_; }

  private:
    UniqueFd OpenCopy();
    UniqueFd OpenOriginal() const;
    void ReportWrite(const char *line, size_t length) const;
    void ReportCopyBack() const;
    // Writes the first `textSize` bytes of the copy, and empty lines behind them, between two
    // places of the file. Returns where that ended.
    off_t WriteOver(int file, off_t position, off_t textSize, off_t size);

    TerminationHeld held_;  // to the very end, when the temporary file is gone as well
    const char *path_;
    const InPlaceEditRules &rules_;
    MessageOrigin origin_;
    char temporary_[sizeof InPlaceEditRules::temporaryFile];
    UniqueFd copy_;
    TextFile original_;
    off_t length_ = 0;
};

}  // namespace config
