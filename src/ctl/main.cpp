// tqctl finds any unit, sets it up, and sees that it took.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/owners.h"
#include "ctl/account.h"
#include "ctl/list.h"
#include "ctl/options.h"
#include "ctl/setup.h"

using ctl::Command;

// What the library prints goes to standard output, which here belongs to results: its diagnostics
// go to standard error or nowhere. Returns the stream for results.
static UniqueFile SetDiagnosticsAside(bool verbose) {
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int diagnostics = verbose ? STDERR_FILENO : nowhere.get();
    if (results == -1 || dup2(diagnostics, STDOUT_FILENO) == -1) {
        return nullptr;
    }
    return UniqueFile(fdopen(results, "w"));
}

static ctl::Status Run(ctl::Session &session) {
    switch (session.options.command) {
        case Command::kList:
            return List(session);
        case Command::kShow:
            return Show(session);
        case Command::kSet:
            return Set(session);
        case Command::kCheckPassword:
            return CheckPassword(session);
        case Command::kPassword:
            return ChangePassword(session);
        case Command::kNone:
            break;
    }
    return ctl::kUsage;
}

int main(int argc, char **argv) {
    ctl::Options options;
    ctl::Status status;
    if (!ReadOptions(argc, argv, &options, &status)) {
        return status;
    }
    const UniqueFile out = SetDiagnosticsAside(options.verbose);
    if (!out) {
        return Fail(ctl::kFailed, "can't print: %s", strerror(errno));
    }
    {
        ctl::Session session(options, out.get());
        status = Run(session);
    }
    if (fflush(out.get()) != 0 || ferror(out.get())) {
        return ctl::Fail(ctl::kFailed, "can't print: %s", strerror(errno));
    }
    return status;
}
