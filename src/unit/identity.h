// The unit's identity: small files under /etc, one item each, and the kernel's host name.
//
// A text read from a file is appended to what the buffer holds, as common/first_line.h says.
#pragma once

// "/etc/Model" and "/etc/Proj". 0, or -1 with "unknown".
int COM_GetModelName(char *buf, int length);
int COM_GetProjName(char *buf, int length);

// The host name. 0, or -1 with "unknown".
int COM_GetUnitName(char *buf, int length);

// "/etc/Note". Always 0; a missing note reads "unknown".
int COM_GetNote(char *buf, int length);

// "/etc/Port", the web server's port as decimal text. 0, or -1 with "80".
int COM_GetTriggerPort(char *buf, int length);

namespace unit {

// The same for a field whose text may run on into the rest of its record: `room` is how many bytes
// there are from `buf` to the record's end.
int AppendModelName(char *buf, int length, int room);
int AppendProjName(char *buf, int length, int room);
int AppendTriggerPort(char *buf, int length, int room);

}  // namespace unit
