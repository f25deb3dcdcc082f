// The owner of one malloc block.
#pragma once

#include <cstdlib>
#include <memory>

struct HeapFree {
    void operator()(void *block) const { free(block); }
};

template <class T>
using HeapBlock = std::unique_ptr<T, HeapFree>;

// A zeroed block of `size` bytes; empty when there is no memory.
template <class T = char>
HeapBlock<T> ZeroedBlock(size_t size) {
    return HeapBlock<T>(static_cast<T *>(calloc(1, size)));
}
