// The watchdog: other programs ask for a delayed reboot, shutdown or re-run of a command by putting
// a request file into a folder.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "common/owners.h"

// Looks at the folder once a second, for ever, and removes each request that was carried out. With
// a null folder it says so and returns.
void TQ_Watchdog(const char *folder);

// The actions. The text is the due time in seconds since the epoch (0: at once). 0 when carried
// out; -1 when it is not due yet or the text is of no use.
int TQ_WatchdogReboot(const char *text);
int TQ_WatchdogShutdown(const char *text);

// Behind the due time stand a comma and a command for the shell. "%%" in it is one per cent sign;
// any other per cent sign stands for itself.
int TQ_WatchdogRerun(const char *text);

namespace config {

inline constexpr char kWatchdogFolder[] = "/var/watchdog";

// One writing of a request file.
struct RequestState {
    dev_t device;
    ino_t inode;
    int64_t seconds;  // the time of its last change
    int64_t nanoseconds;

    bool operator==(const RequestState &) const = default;
};

// The folder, and what the looks at it remember.
class WatchdogFolder {
  public:
    // `path` must outlive the object.
    explicit WatchdogFolder(const char *path) : path_(path) {}

    // Looks at every request once. One that was carried out but can't be removed is not carried out
    // again before somebody writes it anew.
    void Scan();

  private:
    void HandleEntry(const char *name);
    void CheckOwner(int folder);
    void Remove(const char *path, const RequestState &state);
    bool IsDone(const RequestState &state) const;
    void MarkDone(const RequestState &state);

    const char *path_;
    bool saidOpen_ = false;
    HeapBlock<RequestState> done_;  // carried out, but still there
    size_t count_ = 0;
};

}  // namespace config
