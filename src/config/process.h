// Processes found by name in the process table, and the daemon's own process id.
#pragma once

#include <sys/types.h>

namespace config {

inline constexpr char kDefaultPidFile[] = "/var/run/TQ.pid";

}  // namespace config

// Sends SIGTERM to every process whose first command-line word contains `name` and fails to contain
// at least one of the further texts (a null ends them). Without further texts nothing is signalled.
// Returns 0 when at least one process was signalled, else -1.
int COM_KillProcbyName(const char *name, ...) __attribute__((sentinel));

// Sends `signal` to the first process whose command line begins with `name`, or, with a null name,
// to `pid`. Returns the result of kill, or -1 when nothing was signalled.
int COM_SendSignal(const char *name, pid_t pid, int signal);

// Writes the process id to a file, in decimal, without a line end. Always returns -1.
int COM_SavePid(const char *path);
