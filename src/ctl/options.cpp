#include "ctl/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ctl {

namespace {

enum Option : int {
    kAccount = 256,
    kAddress,
    kDhcp,
    kDns,
    kDryRun,
    kFormat,
    kGateway,
    kHelp,
    kJson,
    kNewPasswordFile,
    kPasswordFile,
    kPasswordStdin,
    kPlain,
    kVersion,
    kVia,
    kWait,
    kWatch,
    kYes,
};

// The commands that an option belongs to, one bit each.
enum Where : unsigned {
    kInList = 1 << static_cast<int>(Command::kList),
    kInShow = 1 << static_cast<int>(Command::kShow),
    kInSet = 1 << static_cast<int>(Command::kSet),
    kInCheck = 1 << static_cast<int>(Command::kCheckPassword),
    kInPassword = 1 << static_cast<int>(Command::kPassword),
    kWithUnit = kInShow | kInSet | kInCheck | kInPassword,
    kWithAccount = kInSet | kInCheck | kInPassword,
    kEverywhere = kInList | kWithUnit | 1 << static_cast<int>(Command::kNone),
};

struct CommandText {
    const char *name;
    const char *help;
};

}  // namespace

static constexpr option kOptions[] = {
    {"account", required_argument, nullptr, kAccount},
    {"address", required_argument, nullptr, kAddress},
    {"dhcp", no_argument, nullptr, kDhcp},
    {"dns", required_argument, nullptr, kDns},
    {"dry-run", no_argument, nullptr, kDryRun},
    {"format", required_argument, nullptr, kFormat},
    {"gateway", required_argument, nullptr, kGateway},
    {"help", no_argument, nullptr, kHelp},
    {"interface", required_argument, nullptr, 'i'},
    {"json", no_argument, nullptr, kJson},
    {"new-password-file", required_argument, nullptr, kNewPasswordFile},
    {"password-file", required_argument, nullptr, kPasswordFile},
    {"password-stdin", no_argument, nullptr, kPasswordStdin},
    {"plain", no_argument, nullptr, kPlain},
    {"project", required_argument, nullptr, 'F'},
    {"time", required_argument, nullptr, 't'},
    {"verbose", no_argument, nullptr, 'v'},
    {"version", no_argument, nullptr, kVersion},
    {"via", required_argument, nullptr, kVia},
    {"wait", required_argument, nullptr, kWait},
    {"watch", no_argument, nullptr, kWatch},
    {"yes", no_argument, nullptr, kYes},
    {nullptr, 0, nullptr, 0},
};

// In the order of Command.
static constexpr CommandText kCommands[] = {
    {"list",
     "tqctl list [-F PROJECT] [--json | --plain | --format TEXT] [--watch] [--via ADDRESS]\n"
     "Lists the units of the LAN, sorted by address.\n"
     "  -F PROJECT      units of this project only, letter case ignored\n"
     "  --json          one object: version, units, silent\n"
     "  --plain         a line of columns separated by tabs for each unit\n"
     "  --format TEXT   a line for each unit; ${ip}, ${mac}, ${name}, ... stand for what it says\n"
     "  --watch         go on, and print who comes, goes and changes\n"
     "  --via ADDRESS   have that unit list its own LAN, through any router\n"},
    {"show",
     "tqctl show UNIT [--json] [--yes]\n"
     "Shows all that a unit says of itself. UNIT is a MAC address, a name or an address.\n"
     "  --yes           use a temporary address without asking, where one is needed\n"},
    {"set",
     "tqctl set UNIT --address A/PREFIX [--gateway G] [--dns D] [options]\n"
     "tqctl set UNIT --dhcp [options]\n"
     "Gives a unit new network settings and waits until it answers from them.\n"
     "  --dry-run       show what would be sent and what would be refused; send nothing\n"
     "  --yes           use a temporary address without asking, where one is needed\n"
     "  --wait SECONDS  how long to wait for the unit (20)\n"
     "KIRVEX units want their administrator's password:\n"
     "  --account NAME --password-file FILE --password-stdin\n"},
    {"check-password",
     "tqctl check-password UNIT [--account NAME] [--password-file FILE | --password-stdin]\n"
     "Asks a KIRVEX unit whether the password is right. It logs in to do so, which may end the\n"
     "session of another administrator.\n"},
    {"password",
     "tqctl password UNIT [--password-file FILE --new-password-file FILE | --password-stdin]\n"
     "Changes the administrator's password of a KIRVEX unit: digits, at most 31. From standard\n"
     "input come two lines, the old password and the new one.\n"},
};

static constexpr char kUsageText[] =
    "tqctl [-i IF]... [-t SECONDS] [-v] COMMAND ...\n"
    "  list             find every unit on the LAN\n"
    "  show UNIT        what a unit says of itself\n"
    "  set UNIT         new network settings\n"
    "  check-password UNIT, password UNIT    the administrator of a KIRVEX unit\n"
    "  -i IF            only this interface (all that are up and can broadcast)\n"
    "  -t SECONDS       listen as long as that (until nobody new answers, 1.6 to 5)\n"
    "  -v               show on standard error what is sent and what can't be read\n"
    "  --version, --help, COMMAND --help\n";

static Command FindCommand(const char *word) {
    int i = 0;
    for (const CommandText &command : kCommands) {
        if (strcmp(command.name, word) == 0) {
            return static_cast<Command>(i);
        }
        ++i;
    }
    return Command::kNone;
}

// A number of seconds between 0.1 and one day.
static bool ReadSeconds(const char *text, Milliseconds *value) {
    char *end;
    const double seconds = strtod(text, &end);
    if (end == text || *end != '\0' || !(seconds >= 0.1 && seconds <= 86400)) {
        Fail(kUsage, "'%s' is no number of seconds", text);
        return false;
    }
    *value = static_cast<Milliseconds>(seconds * 1000);
    return true;
}

// The commands that `which` may stand with.
static unsigned Allowed(int which) {
    switch (which) {
        case 'F':
        case kPlain:
        case kFormat:
        case kWatch:
        case kVia:
            return kInList;
        case kJson:
            return kInList | kInShow;
        case kAddress:
        case kGateway:
        case kDns:
        case kDhcp:
        case kDryRun:
            return kInSet;
        case kWait:
            return kWithAccount;
        case kYes:
            return kWithUnit;
        case kAccount:
        case kPasswordFile:
        case kPasswordStdin:
            return kWithAccount;
        case kNewPasswordFile:
            return kInPassword;
        default:
            return kEverywhere;
    }
}

static bool TakeOption(int which, const char *value, Options *options) {
    switch (which) {
        case 'i':
            if (options->interfaceCount == kMostLinks) {
                Fail(kUsage, "more than %d interfaces", kMostLinks);
                return false;
            }
            options->interfaces[options->interfaceCount++] = value;
            return true;
        case 't':
            return ReadSeconds(value, &options->time);
        case kWait:
            return ReadSeconds(value, &options->wait);
        case 'v':
            options->verbose = true;
            return true;
        case 'F':
            options->project = value;
            return true;
        case kAccount:
            options->account = value;
            return true;
        case kAddress:
            options->address = value;
            return true;
        case kDhcp:
            options->dhcp = true;
            return true;
        case kDns:
            options->dns = value;
            return true;
        case kDryRun:
            options->dryRun = true;
            return true;
        case kFormat:
            options->format = value;
            return true;
        case kGateway:
            options->gateway = value;
            return true;
        case kJson:
            options->json = true;
            return true;
        case kNewPasswordFile:
            options->newPasswordFile = value;
            return true;
        case kPasswordFile:
            options->passwordFile = value;
            return true;
        case kPasswordStdin:
            options->passwordStdin = true;
            return true;
        case kPlain:
            options->plain = true;
            return true;
        case kVia:
            options->via = value;
            return true;
        case kWatch:
            options->watch = true;
            return true;
        case kYes:
            options->yes = true;
            return true;
        default:
            return false;
    }
}

// Whether the options go together.
static bool IsComplete(const Options &options) {
    if (options.json + options.plain + (options.format != nullptr) > 1) {
        Fail(kUsage, "--json, --plain and --format exclude each other");
        return false;
    }
    if (options.via && (options.watch || options.interfaceCount > 0)) {
        Fail(kUsage, "--via asks one unit once: neither --watch nor -i goes with it");
        return false;
    }
    if (options.command == Command::kSet && options.dhcp == (options.address != nullptr)) {
        Fail(kUsage, "set needs either --address A/PREFIX or --dhcp");
        return false;
    }
    if (options.dhcp && (options.gateway || options.dns)) {
        Fail(kUsage, "with --dhcp the unit gets gateway and name server by DHCP");
        return false;
    }
    if (options.passwordStdin && (options.passwordFile || options.newPasswordFile)) {
        Fail(kUsage, "--password-stdin and a password file exclude each other");
        return false;
    }
    return true;
}

// The words that are no options: a command, and the unit that all but list want.
static bool TakeWords(int count, char **words, Options *options) {
    if (count == 0) {
        fputs(kUsageText, stderr);
        return false;
    }
    options->command = FindCommand(words[0]);
    if (options->command == Command::kNone) {
        Fail(kUsage, "there is no command '%s'; tqctl --help lists them", words[0]);
        return false;
    }
    const int wanted = options->command == Command::kList ? 1 : 2;
    if (count != wanted) {
        Fail(kUsage,
             wanted == 1 ? "list takes no unit; 'tqctl show' shows one" : "%s takes one UNIT",
             words[0]);
        return false;
    }
    options->unit = words[1];  // null behind the last word
    return true;
}

static void PrintHelp(Command command) {
    if (command == Command::kNone) {
        fputs(kUsageText, stdout);
    } else {
        fputs(kCommands[static_cast<int>(command)].help, stdout);
    }
}

bool ReadOptions(int argc, char **argv, Options *options, Status *status) {
    *status = kUsage;
    bool help = false;
    // For each command, an option that was given and does not belong to it.
    const char *foreign[static_cast<int>(Command::kNone) + 1] = {};
    int which;
    int index = -1;
    while ((which = getopt_long(argc, argv, "i:t:vF:", kOptions, &index)) != -1) {
        if (which == kVersion) {
            puts("tqctl " TQ_VERSION);
            *status = kDone;
            return false;
        }
        if (which == kHelp) {
            help = true;
        } else if (!TakeOption(which, optarg, options)) {
            return false;
        }
        for (int i = 0; i < static_cast<int>(Command::kNone); ++i) {
            if (!(Allowed(which) & 1U << i)) {
                foreign[i] = which == 'F' ? "project" : kOptions[index].name;
            }
        }
    }
    if (help) {
        PrintHelp(optind < argc ? FindCommand(argv[optind]) : Command::kNone);
        *status = kDone;
        return false;
    }
    if (!TakeWords(argc - optind, argv + optind, options)) {
        return false;
    }
    if (const char *option = foreign[static_cast<int>(options->command)]) {
        Fail(kUsage, "%s does not take --%s", argv[optind], option);
        return false;
    }
    return IsComplete(*options);
}

}  // namespace ctl
