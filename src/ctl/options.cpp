#include "ctl/options.h"

#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ctl {

namespace {

// The commands that an option belongs to, one bit each.
enum Where {
    kInList = 1 << static_cast<int>(Command::kList),
    kInShow = 1 << static_cast<int>(Command::kShow),
    kInSet = 1 << static_cast<int>(Command::kSet),
    kInCheck = 1 << static_cast<int>(Command::kCheckPassword),
    kInPassword = 1 << static_cast<int>(Command::kPassword),
    kWithAccount = kInSet | kInCheck | kInPassword,
    kWithUnit = kInShow | kWithAccount,
    kEverywhere = kInList | kWithUnit | 1 << static_cast<int>(Command::kNone),
    kTakesValue = 1 << 7,
};

// Names stand before their help, with a zero byte between.
struct OptionInfo {
    const char *name;
    const char *Options::*value;
    char letter;  // 0: none
    uint8_t where;
};

}  // namespace

static constexpr OptionInfo kOptions[] = {
    {"address\0"
     "A/PREFIX  a fixed address",
     &Options::address, 0, kInSet | kTakesValue},
    {"gateway\0"
     "G  none without it",
     &Options::gateway, 0, kInSet | kTakesValue},
    {"dns\0"
     "D  name server (the one it has)",
     &Options::dns, 0, kInSet | kTakesValue},
    {"dhcp\0"
     "ask a DHCP server instead",
     &Options::dhcp, 0, kInSet},
    {"dry-run\0"
     "show what would be sent or refused; send nothing",
     &Options::dryRun, 0, kInSet},
    {"project\0"
     "NAME  units of this project only, letter case ignored",
     &Options::project, 'F', kInList | kTakesValue},
    {"json\0"
     "one object: version, units, silent",
     &Options::json, 0, kInList | kInShow},
    {"plain\0"
     "a line for each unit, with tabs",
     &Options::plain, 0, kInList},
    {"format\0"
     "TEXT  a line for each unit, with ${ip}, ${mac}, ... replaced",
     &Options::format, 0, kInList | kTakesValue},
    {"watch\0"
     "go on, and print who comes, goes and changes",
     &Options::watch, 0, kInList},
    {"via\0"
     "ADDRESS  the LAN of that unit, through any router",
     &Options::via, 0, kInList | kTakesValue},
    {"yes\0"
     "use a temporary address without asking",
     &Options::yes, 0, kWithUnit},
    {"wait\0"
     "SECONDS  how long to wait for the unit (20)",
     &Options::wait, 0, kWithAccount | kTakesValue},
    {"account\0"
     "NAME  of a KIRVEX unit's administrator (admin)",
     &Options::account, 0, kWithAccount | kTakesValue},
    {"password-file\0"
     "FILE  its first line is the password",
     &Options::passwordFile, 0, kWithAccount | kTakesValue},
    {"new-password-file\0"
     "FILE  the same for the new one",
     &Options::newPasswordFile, 0, kInPassword | kTakesValue},
    {"password-stdin\0"
     "passwords from standard input, a line each",
     &Options::passwordStdin, 0, kWithAccount},
    {"interface\0"
     "IF  only this one (all that are up and can broadcast)",
     &Options::interface, 'i', kEverywhere | kTakesValue},
    {"time\0"
     "SECONDS  how long to listen (until nobody new answers, 1.6 to 5)",
     &Options::time, 't', kEverywhere | kTakesValue},
    {"verbose\0"
     "show what is sent and what can't be read",
     &Options::verbose, 'v', kEverywhere},
    {"help\0"
     "also: COMMAND --help",
     &Options::help, 0, kEverywhere},
    {"version\0"
     "print it",
     &Options::version, 0, kEverywhere},
};
static constexpr int kOptionCount = sizeof kOptions / sizeof *kOptions;

// In the order of Command.
static constexpr const char *kCommands[] = {
    "list\0"
    "\nLists the units of the LAN, sorted by address.",
    "show\0"
    " UNIT\nShows all that a unit says of itself.",
    "set\0"
    " UNIT --address A/PREFIX | --dhcp\n"
    "Gives a unit new network settings and waits until it answers from them.",
    "check-password\0"
    " UNIT\n"
    "Asks a KIRVEX unit whether the administrator's password is right. It logs in, which may\n"
    "end another's session.",
    "password\0"
    " UNIT\n"
    "Changes the administrator's password of a KIRVEX unit: digits, at most 31.",
};
static constexpr int kCommandCount = sizeof kCommands / sizeof *kCommands;
static_assert(kCommandCount == static_cast<int>(Command::kNone));

static Command FindCommand(const char *word) {
    int i = 0;
    while (i < kCommandCount && strcmp(kCommands[i], word) != 0) {
        ++i;
    }
    return static_cast<Command>(i);
}

static const char *HelpBehind(const char *name) {
    return name + strlen(name) + 1;
}

// Prints a command's help; that of Command::kNone names them all.
static void PrintHelp(Command command) {
    const int chosen = static_cast<int>(command);
    for (int i = 0; i < kCommandCount; ++i) {
        if (i == chosen || chosen == kCommandCount) {
            printf("tqctl [OPTIONS] %s%s\n", kCommands[i], HelpBehind(kCommands[i]));
        }
    }
    for (const OptionInfo &option : kOptions) {
        if (option.where & 1 << chosen) {
            printf("  %c%c --%-17s %s\n", option.letter ? '-' : ' ',
                   option.letter ? option.letter : ' ', option.name, HelpBehind(option.name));
        }
    }
}

// A number of seconds between 0.1 and one day, such as 2 or 0.25.
static Milliseconds ReadSeconds(const char *text) {
    static constexpr unsigned long kLongest = 86400;
    char *end;
    const unsigned long seconds = strtoul(text, &end, 10);
    const char *digits = *end == '.' ? end + 1 : end;
    unsigned long time = seconds;
    for (int i = 0; i < 3; ++i) {
        time *= 10;
        if (digits > end && *digits >= '0' && *digits <= '9') {
            time += static_cast<unsigned>(*digits++ - '0');
        }
    }
    digits += strspn(digits, "0123456789");
    if (*digits != '\0' || seconds > kLongest || time < 100 || time > kLongest * 1000) {
        Fail(kUsage, "'%s' is no number of seconds", text);
    }
    return static_cast<Milliseconds>(time);
}

static void TakeInterface(const char *name, Options *options) {
    if (options->interfaceCount == kMostLinks) {
        Fail(kUsage, "more than %d interfaces", kMostLinks);
    }
    options->interfaces[options->interfaceCount++] = name;
}

static void TakeOptions(int argc, char **argv, Options *options) {
    static constexpr int kFirst = 256;  // behind all letters
    option longs[kOptionCount + 1] = {};
    for (int i = 0; i < kOptionCount; ++i) {
        longs[i].name = kOptions[i].name;
        longs[i].has_arg = kOptions[i].where & kTakesValue ? required_argument : no_argument;
        longs[i].val = kFirst + i;
    }
    for (int which; (which = getopt_long(argc, argv, "i:t:vF:", longs, nullptr)) != -1;) {
        int i = 0;
        while (i < kOptionCount && which != kFirst + i && which != kOptions[i].letter) {
            ++i;
        }
        if (i == kOptionCount) {
            End(kUsage);
        }
        const OptionInfo &info = kOptions[i];
        options->*info.value = optarg ? optarg : info.name;
        if (info.value == &Options::interface) {
            TakeInterface(optarg, options);
        }
    }
}

// What is wrong with the options together, or null.
static const char *FindConflict(const Options &options) {
    if (!options.json + !options.plain + !options.format < 2) {
        return "--json, --plain and --format exclude each other";
    }
    if (options.via && (options.watch || options.interface)) {
        return "--via goes with neither --watch nor -i";
    }
    if (options.command == Command::kSet && !options.dhcp == !options.address) {
        return "set needs either --address A/PREFIX or --dhcp";
    }
    if (options.dhcp && (options.gateway || options.dns)) {
        return "with --dhcp gateway and name server come by DHCP";
    }
    if (options.passwordStdin && (options.passwordFile || options.newPasswordFile)) {
        return "--password-stdin and a password file exclude each other";
    }
    return nullptr;
}

void ReadOptions(int argc, char **argv, Options *options) {
    TakeOptions(argc, argv, options);
    char **words = argv + optind;
    if (options->version) {
        printf("tqctl %s\n", TQ_VERSION);
        End(kDone);
    }
    options->command = words[0] ? FindCommand(words[0]) : Command::kNone;
    if (options->help) {
        PrintHelp(options->command);
        End(kDone);
    }
    if (options->command == Command::kNone) {
        Fail(kUsage, "no command '%s'; tqctl --help lists them", words[0] ? words[0] : "");
    }
    // A unit is what all but list want.
    const int wanted = options->command == Command::kList ? 1 : 2;
    if (argc - optind != wanted) {
        Fail(kUsage, "%s takes %s UNIT", words[0], wanted == 1 ? "no" : "one");
    }
    options->unit = words[1];  // null behind the last word
    const int where = 1 << static_cast<int>(options->command);
    for (const OptionInfo &info : kOptions) {
        if (options->*info.value && (info.where & where) == 0) {
            Fail(kUsage, "%s does not take --%s", words[0], info.name);
        }
    }
    if (const char *conflict = FindConflict(*options)) {
        Fail(kUsage, "%s", conflict);
    }
    options->listening = options->time ? ReadSeconds(options->time) : 0;
    options->patience = ReadSeconds(options->wait ? options->wait : "20");
    options->account = options->account ? options->account : "admin";
}

}  // namespace ctl
