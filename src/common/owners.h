// The owners of what the C library and the kernel hand out: heap blocks, descriptors, folders.
#pragma once

#include <dirent.h>

#include <cstdlib>
#include <memory>

// One malloc block.
struct HeapFree {
    void operator()(void *block) const { free(block); }
};

template <class T>
using HeapBlock = std::unique_ptr<T, HeapFree>;

// A block of `size` bytes, and a zeroed one; empty when there is no memory.
template <class T = char>
HeapBlock<T> NewBlock(size_t size) {
    return HeapBlock<T>(static_cast<T *>(malloc(size)));
}
template <class T = char>
HeapBlock<T> ZeroedBlock(size_t size) {
    return HeapBlock<T>(static_cast<T *>(calloc(1, size)));
}

// Closes a descriptor that is not negative and sets it to -1.
void COM_CloseFd(int *descriptor);

// One file descriptor.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
    UniqueFd(UniqueFd &&other) noexcept : descriptor_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { COM_CloseFd(&descriptor_); }

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    void reset(int descriptor = -1) {
        COM_CloseFd(&descriptor_);
        descriptor_ = descriptor;
    }
    int release() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor;
    }
    // Where a routine that opens a descriptor may store it.
    int *address() { return &descriptor_; }

  private:
    int descriptor_ = -1;
};

// One open directory.
struct DirectoryClose {
    void operator()(DIR *directory) const { closedir(directory); }
};

using UniqueDir = std::unique_ptr<DIR, DirectoryClose>;

// Whether an entry is none of the folder's own: ".", ".." or a file system's "lost+found".
bool IsOrdinaryEntry(const dirent &entry);
