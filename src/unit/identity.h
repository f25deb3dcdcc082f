// The unit's identity: small files under /etc, one item each, and the kernel's host name.
//
// `length` and `room` are those of common/first_line.h.
#pragma once

// "/etc/Model" and "/etc/Proj". 0, or -1 with "unknown".
int COM_GetModelName(char *buf, int length, int room = 0);
int COM_GetProjName(char *buf, int length, int room = 0);

// The host name. 0, or -1 with "unknown".
int COM_GetUnitName(char *buf, int length);

// "/etc/Note". Always 0; a missing note reads "unknown".
int COM_GetNote(char *buf, int length, int room = 0);

// "/etc/Port", the web server's port as decimal text. 0, or -1 with "80".
int COM_GetTriggerPort(char *buf, int length, int room = 0);
