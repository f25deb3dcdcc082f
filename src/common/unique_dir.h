// The owner of one open directory.
#pragma once

#include <dirent.h>

#include <memory>

struct DirectoryClose {
    void operator()(DIR *directory) const { closedir(directory); }
};

using UniqueDir = std::unique_ptr<DIR, DirectoryClose>;

// Whether an entry is none of the folder's own: ".", ".." or a file system's "lost+found".
bool IsOrdinaryEntry(const dirent &entry);
