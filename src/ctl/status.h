// How tqctl ends, and how it says why.
#pragma once

namespace ctl {

// The exit status.
enum Status : int {
    kDone = 0,      // done, and seen on the wire
    kFailed = 1,    // this machine failed: no memory, no room for the output
    kUsage = 2,     // wrongly asked, or unsafe: nothing was sent
    kNoUnit = 3,    // no such unit
    kSeveral = 4,   // the name fits several units
    kNoRight = 5,   // no right to do it, or no network to do it on
    kNotTaken = 6,  // sent, but the unit does not show it
    kRefused = 7,   // the unit says no
};

// Standard output belongs to results; all else is said on standard error. "%m" is errno's text.

// Prints a line to standard error.
void Say(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Has `last` called before the program ends, other than by a signal. Once in a run.
void AtEnd(void (*last)());

[[noreturn]] void End(Status status);

// Prints "tqctl: " and a sentence, and ends the program.
[[noreturn]] void Fail(Status status, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// The command that gives an executable the right to packet sockets.
inline constexpr char kSetcap[] =
    "sudo setcap cap_net_raw,cap_net_admin+ep \"$(command -v tqctl)\"";

}  // namespace ctl
