// TQ reads its options and becomes a client, or a server and perhaps a watchdog.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "common/text.h"
#include "config/command.h"
#include "config/config_file.h"
#include "config/watchdog.h"
#include "frame/message.h"
#include "frame/modes.h"
#include "frame/usage.h"
#include "frame/version.h"

static constexpr char kSource[] = "TQ";

namespace {

// An option's argument, of which the first 80 characters count.
struct OptionText {
    bool given = false;
    char text[80 + 1] = "";

    void Set(const char *argument) {
        given = true;
        CopyText(text, argument);
    }
    const char *OrNull() const { return given ? text : nullptr; }
};

struct Options {
    bool daemon = false;
    bool watchdog = false;
    OptionText pidFile;
    OptionText device;
    OptionText filter;
};

}  // namespace

// Returns 0, or -1 after a bad option.
static int ReadOptions(int argc, char **argv, Options *options, TQ_Cfg *cfg) {
    static constexpr MessageOrigin kOrigin = TQ_ORIGIN("main");
    int status = 0;
    int option;
    while ((option = getopt(argc, argv, "DP:I:F:C:W")) != -1) {
        switch (option) {
            case 'D':
                options->daemon = true;
                break;
            case 'W':
                options->watchdog = true;
                break;
            case 'P':
                options->pidFile.Set(optarg);
                TQ_LOG_FOR(kOrigin, "filename = \"%s\"\n", optarg);
                break;
            case 'I':
                options->device.Set(optarg);
                TQ_LOG_FOR(kOrigin, "devicename = \"%s\"\n", optarg);
                break;
            case 'F':
                options->filter.Set(optarg);
                TQ_LOG_FOR(kOrigin, "filtername = \"%s\"\n", optarg);
                break;
            case 'C':
                cfg->pCfgFile = optarg;
                TQ_LOG_FOR(kOrigin, "config = \"%s\"\n", optarg);
                break;
            default:
                status = -1;
                TQ_TestShowUsage(argv[0]);
                break;
        }
    }
    return status;
}

// A standard stream that is closed at the start would become the next socket's descriptor, and
// messages would be written into that.
static void FillStandardStreams() {
    int file;
    do {
        file = open("/dev/null", O_RDWR);
    } while (file >= 0 && file <= STDERR_FILENO);
    if (file >= 0) {
        close(file);
    }
}

int main(int argc, char **argv) {
    FillStandardStreams();
    // Messages reach a log file as they happen, and no process prints another's buffer.
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    TQ_Cfg cfg = config::Defaults();
    COM_Version();
    TQ_Version();
    Options options;
    if (ReadOptions(argc, argv, &options, &cfg) == -1) {
        return -1;
    }
    if (!options.daemon) {
        TQ_Client(options.device.OrNull(), options.filter.OrNull());
        return 0;
    }
    // A unit serves on when the reader of its messages, or whoever started it, has gone.
    config::SetTerminalSignals(SIG_IGN);
    TQ_LOG("Start TQ in daemon mode\n");
    fflush(stdout);
    if (fork() == 0) {
        TQ_LOG("Child Process : Start TQ_Server(%s, %s, %p)\n", options.pidFile.text,
               options.device.text, static_cast<void *>(&cfg));
        TQ_Server(options.pidFile.OrNull(), options.device.OrNull(), &cfg);
        return 0;
    }
    // A failed fork is treated as the parent: what was asked of it can still be done.
    if (options.watchdog) {
        TQ_LOG("Parent Process : Start TQ_Watchdog(%s)\n", config::kWatchdogFolder);
        TQ_Watchdog(config::kWatchdogFolder);
    } else {
        TQ_LOG("Parent Process : take a break than exit\n");
    }
    return 0;
}
