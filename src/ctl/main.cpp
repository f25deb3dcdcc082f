// tqctl finds any unit, sets it up, and sees that it took.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ctl/account.h"
#include "ctl/list.h"
#include "ctl/options.h"
#include "ctl/setup.h"

// What the library prints goes to standard output, which here belongs to results: its diagnostics
// go to standard error or nowhere. Returns the stream for results.
static FILE *SetDiagnosticsAside(bool verbose) {
    const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    FILE *out = fdopen(results, "w");
    const int diagnostics = verbose ? STDERR_FILENO : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (!out || dup2(diagnostics, STDOUT_FILENO) == -1) {
        ctl::Fail(ctl::kFailed, "can't print: %s", strerror(errno));
    }
    return out;
}

int main(int argc, char **argv) {
    // In the order of ctl::Command.
    static constexpr void (*kCommands[])(ctl::Session &) = {
        ctl::List, ctl::Show, ctl::Set, ctl::CheckPassword, ctl::ChangePassword};
    ctl::Options options;
    ReadOptions(argc, argv, &options);
    ctl::Session session(options, SetDiagnosticsAside(options.verbose));
    kCommands[static_cast<int>(options.command)](session);
    session.Flush();
    exit(ctl::kDone);  // as every failure ends, too
}
