// The unit's identity: small files under /etc, one item each, and the kernel's host name.
#pragma once

// Reads the first line of a file, without its line end, and appends it to the text in `buf`
// (`length` bytes in all, which the result never exceeds). Of a file longer than 255 bytes each
// further block of 255 bytes adds its text up to its first line end. Returns 0; -1 with "unknown"
// in `buf` when the file is missing or empty.
int COM_GetFileContent(const char *path, char *buf, int length);

// The same for a field inside a larger record: at most length - 1 characters are added, and they
// may fill `room`, the bytes from `buf` to the end of the record.
int AppendFileContent(const char *path, char *buf, int length, int room);

// "/etc/Model" and "/etc/Proj". 0, or -1 with "unknown".
int COM_GetModelName(char *buf, int length);
int COM_GetProjName(char *buf, int length);

// The host name. 0, or -1 with "unknown".
int COM_GetUnitName(char *buf, int length);

// "/etc/Note". Always 0; a missing note reads "unknown".
int COM_GetNote(char *buf, int length);

// "/etc/Port", the web server's port as decimal text. 0, or -1 with "80".
int COM_GetTriggerPort(char *buf, int length);
