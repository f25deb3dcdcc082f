// The unit's identity: small files under /etc, one item each, and the kernel's host name.
//
// A text read from a file is appended to what the buffer holds. `length` counts the characters
// added, terminator included. `room` is how many bytes from `buf` on belong to the caller, for a
// field whose text may run on into the rest of its record; 0 means `length`. Nothing is written
// outside it.
#pragma once

// Appends the first line of a file, without its line end. Of a file longer than 255 bytes each
// further block of 255 bytes adds its text up to its first line end. Returns 0; -1 with "unknown"
// in `buf` when the file is missing or empty.
int COM_GetFileContent(const char *path, char *buf, int length, int room = 0);

// "/etc/Model" and "/etc/Proj". 0, or -1 with "unknown".
int COM_GetModelName(char *buf, int length, int room = 0);
int COM_GetProjName(char *buf, int length, int room = 0);

// The host name. 0, or -1 with "unknown".
int COM_GetUnitName(char *buf, int length);

// "/etc/Note". Always 0; a missing note reads "unknown".
int COM_GetNote(char *buf, int length, int room = 0);

// "/etc/Port", the web server's port as decimal text. 0, or -1 with "80".
int COM_GetTriggerPort(char *buf, int length, int room = 0);
