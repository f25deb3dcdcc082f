// Reading small text files whose content nobody has checked.
#pragma once

#include <cstddef>

#include "common/owners.h"

// A text file that is read line by line, without a block from the heap. A pipe in its place does
// not hold the reader until somebody writes, and a file without an end ends after a million lines.
class TextFile {
  public:
    // Converts to false, with errno set, when the file can't be opened.
    explicit TextFile(const char *path);
    explicit operator bool() const { return static_cast<bool>(file_); }

    // Reads the next line, or kSize - 1 characters of it, as fgets does. One that a read error cuts
    // is none.
    template <size_t kSize>
    [[nodiscard]] bool ReadLine(char (&line)[kSize]) {
        return left_-- > 0 && ReadPiece(line, kSize);
    }

  private:
    bool ReadPiece(char *line, size_t size);
    bool ReadBlock();

    UniqueFd file_;
    bool comesInPieces_;
    bool ended_ = false;
    bool failed_ = false;
    int left_ = 1000000;
    size_t next_ = 0;
    size_t end_ = 0;
    char block_[1024];
};
