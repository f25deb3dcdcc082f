// Reading small text files whose content nobody has checked.
#pragma once

#include <cstddef>

#include "common/owners.h"

// While one lives, the kernel's tables of interfaces and routes stay open behind the TextFiles that
// have read them, for the next to read from their beginning: the kernel writes them afresh for that
// as well, and opening one takes it longer than all other look-ups of an answer. One at a time may
// live.
class KeptTables {
  public:
    // A server that has received nothing for so long closes them, and holds nothing at rest.
    static constexpr int kSeconds = 1;

    KeptTables();
    ~KeptTables();
    KeptTables(const KeptTables &) = delete;
    KeptTables &operator=(const KeptTables &) = delete;

    // Whether any is open.
    explicit operator bool() const;
    void Close();

  private:
    friend class TextFile;
    // Where the table of this path is kept; null for other files, and while none are kept.
    static UniqueFd *PlaceFor(const char *path);

    UniqueFd interfaces_;
    UniqueFd routes_;
};

// A text file that is read line by line, without a block from the heap. A pipe in its place does
// not hold the reader until somebody writes, and a file without an end ends after a million lines.
class TextFile {
  public:
    // Converts to false, with errno set, when the file can't be opened.
    explicit TextFile(const char *path);
    // Reads a file that is open already for as long as it gives anything.
    explicit TextFile(UniqueFd file);
    ~TextFile();
    TextFile(const TextFile &) = delete;
    TextFile &operator=(const TextFile &) = delete;
    explicit operator bool() const { return static_cast<bool>(file_); }

    // Reads the next line, or kSize - 1 characters of it, as fgets does. One that a read error cuts
    // is none.
    template <size_t kSize>
    [[nodiscard]] bool ReadLine(char (&line)[kSize]) {
        return left_-- > 0 && ReadPiece(line, kSize) > 0;
    }

    // The same of a file of any length, and with zero bytes in its lines: returns how many there
    // are before the terminator, 0 at the end.
    [[nodiscard]] size_t ReadPiece(char *line, size_t size);

    // Whether the end was none: the file could not be read on, which errno explains.
    bool Failed() const { return failed_; }
    int descriptor() const { return file_.get(); }

  private:
    bool ReadBlock();

    // Where the file is kept when this object ends; null if nowhere.
    UniqueFd *keep_ = nullptr;
    UniqueFd file_;
    bool comesInPieces_;
    bool ended_ = false;
    bool failed_ = false;
    int left_ = 1000000;
    size_t next_ = 0;
    size_t end_ = 0;
    char block_[1024];
};
