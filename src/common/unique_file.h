// The owner of one stdio stream.
#pragma once

#include <cstdio>
#include <memory>

struct FileClose {
    void operator()(FILE *file) const { fclose(file); }
};

using UniqueFile = std::unique_ptr<FILE, FileClose>;

// fopen with close-on-exec; empty with errno set on failure.
UniqueFile OpenFile(const char *path, const char *mode);
