// Running command lines without a shell.
#pragma once

#include <sys/types.h>

namespace config {

// What becomes of the process when the reader of its messages (SIGPIPE) or the terminal that it was
// started from (SIGHUP) is gone: SIG_IGN in the daemon, SIG_DFL in the commands that it runs.
void SetTerminalSignals(void (*handler)(int));

}  // namespace config

// Runs a command line and waits for it. Returns the raw wait status (0 when it exited with 0), or
// -1 on failure. While it runs, *pid is its process id; afterwards 0. `pid` may be null.
int COM_System(const char *command, pid_t *pid);

// Replaces the process image by a command: words are split at blanks, the first is the program's
// path. A line of more than 128 words, or with a word of more than 127 characters, is refused with
// E2BIG. Returns only on failure, with the result of execv.
int COM_ParserCMD(const char *command);

// Closes every descriptor of the calling process from 3 up; `pid` is its own process id.
void COM_CloseFdExceptSTD(pid_t pid);
