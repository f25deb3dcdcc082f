// The watchdog: other programs ask for a delayed reboot, shutdown or re-run of a command by putting
// a request file into a folder.
#pragma once

inline constexpr char kWatchdogFolder[] = "/var/watchdog";

// Looks at the folder once a second, for ever, and removes each request that was carried out. With
// a null folder it says so and returns.
void TQ_Watchdog(const char *folder);

// One look at the folder.
void ScanWatchdogFolder(const char *folder);

// The actions. The text is the due time in seconds since the epoch (0: at once). 0 when carried
// out; -1 when it is not due yet or the text is of no use.
int TQ_WatchdogReboot(const char *text);
int TQ_WatchdogShutdown(const char *text);

// Behind the due time stand a comma and a command for the shell. "%%" in it is one per cent sign;
// any other per cent sign stands for itself.
int TQ_WatchdogRerun(const char *text);
