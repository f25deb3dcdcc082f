// Heap buffers that grow.
#pragma once

// Resizes *buffer (a malloc block or null) to `newSize` bytes, zeroes what lies behind `offset`,
// and copies `length` bytes from `source` to `offset`. Returns the new block, which is also stored
// in *buffer; the caller frees it. Returns null, with a message and *buffer as it was, when there
// is no memory or the copy would not fit.
void *COM_ReallocAndCopyBuf(int newSize, void **buffer, int offset, const void *source, int length);

// Inverts `length` bytes in place. Returns -1 for a null buffer, else 0.
int COM_XorBuffer(void *buffer, int length);

// Appends one record to a malloc array of `count` records. Returns whether there was room.
template <class Record>
bool AppendRecord(Record **list, int count, const Record &record) {
    constexpr int size = static_cast<int>(sizeof(Record));
    void *block = *list;
    if (!COM_ReallocAndCopyBuf((count + 1) * size, &block, count * size, &record, size)) {
        return false;
    }
    *list = static_cast<Record *>(block);
    return true;
}
