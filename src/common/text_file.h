// Reading small text files whose content nobody has checked.
#pragma once

#include <cstddef>

#include "common/owners.h"

// A text file that is read line by line. A pipe in its place does not hold the reader until
// somebody writes, and a file without an end ends after a million lines.
class TextFile {
  public:
    // Converts to false, with errno set, when the file can't be opened.
    explicit TextFile(const char *path);
    explicit operator bool() const { return file_ != nullptr; }

    // Reads the next line, or kSize - 1 characters of it, as fgets does.
    template <size_t kSize>
    bool ReadLine(char (&line)[kSize]) {
        return left_-- > 0 && fgets(line, kSize, file_.get()) != nullptr;
    }

  private:
    UniqueFile file_;
    int left_ = 1000000;
};
