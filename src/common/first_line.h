// The first line of a small file whose content nobody has checked.
//
// A text is appended to what the buffer holds. `length` counts the characters added, terminator
// included. `room` is how many bytes from `buf` on belong to the caller, for a field whose text may
// run on into the rest of its record; 0 means `length`. Nothing is written outside it.
#pragma once

// Appends the first line of a file, without its line end. Of a file longer than 255 bytes each
// further block of 255 bytes adds its text up to its first line end. Returns 0; -1 with "unknown"
// in `buf` when the file is missing or empty.
int COM_GetFileContent(const char *path, char *buf, int length, int room = 0);

// Writes "unknown" into a field of `length` bytes.
void WriteUnknown(char *buf, int length);
