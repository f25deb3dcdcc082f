// The first line of a small file whose content nobody has checked.
#pragma once

// Appends the first line of a file, without its line end, to what the buffer holds. `length` counts
// the characters added, terminator included; nothing is written behind `length` bytes of `buf`. Of
// a file longer than 255 bytes each further block of 255 bytes adds its text up to its first line
// end. Returns 0; -1 with "unknown" in `buf` when the file is missing or empty.
int COM_GetFileContent(const char *path, char *buf, int length);

// The same for a field whose text may run on into the rest of its record: nothing is written behind
// `room` bytes of `buf`.
int AppendFirstLine(const char *path, char *buf, int length, int room);

// Writes "unknown" into a field of `length` bytes.
void WriteUnknown(char *buf, int length);
