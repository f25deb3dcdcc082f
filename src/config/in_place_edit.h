// The owner of one in-place edit of a text file.
#pragma once

#include "common/owners.h"
#include "frame/message.h"

// How an edit begins.
struct InPlaceEditRules {
    const char *temporaryFile;  // a mkstemp template
    bool reportCreation;        // whether a failing mkstemp gets a message
    bool createMissing;         // whether a file that is not there is created
};

// The file is read, its new text is written to a temporary file, and that is copied back over it,
// so that the file keeps its inode, owner and mode. The temporary file goes with the object.
class InPlaceEdit {
  public:
    // `path` and `origin` must outlive the object; failures are reported in the name of `origin`.
    InPlaceEdit(const char *path, const InPlaceEditRules &rules, const MessageOrigin &origin);
    InPlaceEdit(const InPlaceEdit &) = delete;
    InPlaceEdit &operator=(const InPlaceEdit &) = delete;
    ~InPlaceEdit();

    explicit operator bool() const { return original_ && copy_; }

    // Reads the next line, or size - 1 characters of it, as fgets does.
    bool ReadLine(char *line, int size) { return fgets(line, size, original_.get()) != nullptr; }

    // The stream that the new text goes to.
    FILE *copy() { return copy_.get(); }

    // Whether all that was written to the copy has reached it.
    bool Flush() { return fflush(copy_.get()) == 0; }

    // Copies the new text over the file, from its start. Returns false when a read or write failed.
    bool CopyBack();

    // The number of bytes that CopyBack has written.
    long length() const { return length_; }

    void Close();

  private:
    const char *path_;
    const MessageOrigin &origin_;
    char temporary_[32];
    UniqueFile copy_;
    UniqueFile original_;
    long length_ = 0;
};
