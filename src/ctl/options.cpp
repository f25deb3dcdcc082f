#include "ctl/options.h"

#include <getopt.h>

#include <cstddef>
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
};

enum class Kind : uint8_t { kFlag, kText, kTime, kInterface };

struct OptionInfo {
    char name[18];
    char letter;  // 0: none
    uint8_t where;
    Kind kind;
    uint16_t offset;  // of what it sets in Options
    const char *help;
};

struct CommandInfo {
    char name[16];
    const char *help;
};

}  // namespace

static constexpr OptionInfo kOptions[] = {
    {"address", 0, kInSet, Kind::kText, offsetof(Options, address), "A/PREFIX  a fixed address"},
    {"gateway", 0, kInSet, Kind::kText, offsetof(Options, gateway), "G  none without it"},
    {"dns", 0, kInSet, Kind::kText, offsetof(Options, dns), "D  name server (the one it has)"},
    {"dhcp", 0, kInSet, Kind::kFlag, offsetof(Options, dhcp), "ask a DHCP server instead"},
    {"dry-run", 0, kInSet, Kind::kFlag, offsetof(Options, dryRun),
     "show what would be sent and what would be refused; send nothing"},
    {"project", 'F', kInList, Kind::kText, offsetof(Options, project),
     "NAME  units of this project only, letter case ignored"},
    {"json", 0, kInList | kInShow, Kind::kFlag, offsetof(Options, json),
     "one object: version, units, silent"},
    {"plain", 0, kInList, Kind::kFlag, offsetof(Options, plain),
     "a line for each unit, columns separated by tabs"},
    {"format", 0, kInList, Kind::kText, offsetof(Options, format),
     "TEXT  a line for each unit; ${ip}, ${mac}, ${name}, ... stand for what it says"},
    {"watch", 0, kInList, Kind::kFlag, offsetof(Options, watch),
     "go on, and print who comes, goes and changes"},
    {"via", 0, kInList, Kind::kText, offsetof(Options, via),
     "ADDRESS  have that unit list its own LAN, through any router"},
    {"yes", 0, kWithUnit, Kind::kFlag, offsetof(Options, yes),
     "use a temporary address without asking, where one is needed"},
    {"wait", 0, kWithAccount, Kind::kTime, offsetof(Options, wait),
     "SECONDS  how long to wait for the unit (20)"},
    {"account", 0, kWithAccount, Kind::kText, offsetof(Options, account),
     "NAME  of a KIRVEX unit's administrator (admin)"},
    {"password-file", 0, kWithAccount, Kind::kText, offsetof(Options, passwordFile),
     "FILE  its first line is the password"},
    {"new-password-file", 0, kInPassword, Kind::kText, offsetof(Options, newPasswordFile),
     "FILE  the same for the new one"},
    {"password-stdin", 0, kWithAccount, Kind::kFlag, offsetof(Options, passwordStdin),
     "read passwords from standard input, a line each"},
    {"interface", 'i', kEverywhere, Kind::kInterface, 0,
     "IF  only this one (all that are up and can broadcast)"},
    {"time", 't', kEverywhere, Kind::kTime, offsetof(Options, time),
     "SECONDS  how long to listen (until nobody new answers, 1.6 to 5)"},
    {"verbose", 'v', kEverywhere, Kind::kFlag, offsetof(Options, verbose),
     "show on standard error what is sent and what can't be read"},
    {"help", 0, kEverywhere, Kind::kFlag, offsetof(Options, help), "also: COMMAND --help"},
    {"version", 0, kEverywhere, Kind::kFlag, offsetof(Options, version), "print it"},
};
static constexpr int kOptionCount = sizeof kOptions / sizeof *kOptions;

// In the order of Command.
static constexpr CommandInfo kCommands[] = {
    {"list", "\nLists the units of the LAN, sorted by address."},
    {"show", " UNIT\nShows all that a unit says of itself."},
    {"set",
     " UNIT --address A/PREFIX | --dhcp\n"
     "Gives a unit new network settings and waits until it answers from them."},
    {"check-password",
     " UNIT\n"
     "Asks a KIRVEX unit whether the administrator's password is right. It logs in to do so, which "
     "may\nend the session of another administrator."},
    {"password",
     " UNIT\n"
     "Changes the administrator's password of a KIRVEX unit: digits, at most 31."},
};
static constexpr int kCommandCount = sizeof kCommands / sizeof *kCommands;
static_assert(kCommandCount == static_cast<int>(Command::kNone));

static Command FindCommand(const char *word) {
    int i = 0;
    while (i < kCommandCount && strcmp(kCommands[i].name, word) != 0) {
        ++i;
    }
    return static_cast<Command>(i);
}

// Prints a command's help; that of Command::kNone names them all.
static void PrintHelp(FILE *out, Command command) {
    const int chosen = static_cast<int>(command);
    for (int i = 0; i < kCommandCount; ++i) {
        if (i == chosen || chosen == kCommandCount) {
            fprintf(out, "tqctl [OPTIONS] %s%s\n", kCommands[i].name, kCommands[i].help);
        }
    }
    for (const OptionInfo &option : kOptions) {
        if (option.where & 1 << chosen) {
            fprintf(out, "  %c%c --%-17s %s\n", option.letter ? '-' : ' ',
                    option.letter ? option.letter : ' ', option.name, option.help);
        }
    }
}

// A number of seconds between 0.1 and one day, such as 2 or 0.25.
static Milliseconds ReadSeconds(const char *text) {
    static constexpr unsigned long kLongest = 86400;
    char *end;
    const unsigned long seconds = strtoul(text, &end, 10);
    unsigned long time = seconds * 1000;
    if (*end == '.') {
        for (unsigned long place = 100; *++end >= '0' && *end <= '9'; place /= 10) {
            time += static_cast<unsigned>(*end - '0') * place;
        }
    }
    if (*end != '\0' || seconds > kLongest || time < 100 || time > kLongest * 1000) {
        Fail(kUsage, "'%s' is no number of seconds", text);
    }
    return static_cast<Milliseconds>(time);
}

static void TakeOption(const OptionInfo &info, const char *value, Options *options) {
    char *place = reinterpret_cast<char *>(options) + info.offset;
    switch (info.kind) {
        case Kind::kFlag:
            *reinterpret_cast<bool *>(place) = true;
            return;
        case Kind::kText:
            *reinterpret_cast<const char **>(place) = value;
            return;
        case Kind::kTime:
            *reinterpret_cast<Milliseconds *>(place) = ReadSeconds(value);
            return;
        case Kind::kInterface:
            if (options->interfaceCount == kMostLinks) {
                Fail(kUsage, "more than %d interfaces", kMostLinks);
            }
            options->interfaces[options->interfaceCount++] = value;
    }
}

// Takes the options. Returns which were given, one bit each.
static uint32_t TakeOptions(int argc, char **argv, Options *options) {
    static constexpr int kFirst = 256;  // behind all letters
    option longs[kOptionCount + 1] = {};
    for (int i = 0; i < kOptionCount; ++i) {
        longs[i].name = kOptions[i].name;
        longs[i].has_arg = kOptions[i].kind == Kind::kFlag ? no_argument : required_argument;
        longs[i].val = kFirst + i;
    }
    uint32_t given = 0;
    for (int which; (which = getopt_long(argc, argv, "i:t:vF:", longs, nullptr)) != -1;) {
        int i = 0;
        while (i < kOptionCount && which != kFirst + i && which != kOptions[i].letter) {
            ++i;
        }
        if (i == kOptionCount) {
            exit(kUsage);
        }
        TakeOption(kOptions[i], optarg, options);
        given |= 1U << i;
    }
    return given;
}

// What is wrong with the options together, or null.
static const char *FindConflict(const Options &options) {
    if (options.json + options.plain + (options.format != nullptr) > 1) {
        return "--json, --plain and --format exclude each other";
    }
    if (options.via && (options.watch || options.interfaceCount > 0)) {
        return "--via asks one unit once: neither --watch nor -i goes with it";
    }
    if (options.command == Command::kSet && options.dhcp == (options.address != nullptr)) {
        return "set needs either --address A/PREFIX or --dhcp";
    }
    if (options.dhcp && (options.gateway || options.dns)) {
        return "with --dhcp the unit gets gateway and name server by DHCP";
    }
    if (options.passwordStdin && (options.passwordFile || options.newPasswordFile)) {
        return "--password-stdin and a password file exclude each other";
    }
    return nullptr;
}

void ReadOptions(int argc, char **argv, Options *options) {
    const uint32_t given = TakeOptions(argc, argv, options);
    char **words = argv + optind;
    if (options->version) {
        fputs("tqctl " TQ_VERSION "\n", stdout);
        exit(kDone);
    }
    options->command = words[0] ? FindCommand(words[0]) : Command::kNone;
    if (options->help || !words[0]) {
        PrintHelp(options->help ? stdout : stderr, options->command);
        exit(options->help ? kDone : kUsage);
    }
    if (options->command == Command::kNone) {
        Fail(kUsage, "there is no command '%s'; tqctl --help lists them", words[0]);
    }
    // A unit is what all but list want.
    const int wanted = options->command == Command::kList ? 1 : 2;
    if (argc - optind != wanted) {
        Fail(kUsage,
             wanted == 1 ? "list takes no unit; 'tqctl show' shows one" : "%s takes one UNIT",
             words[0]);
    }
    options->unit = words[1];  // null behind the last word
    for (int i = 0; i < kOptionCount; ++i) {
        if (given & 1U << i && !(kOptions[i].where & 1 << static_cast<int>(options->command))) {
            Fail(kUsage, "%s does not take --%s", words[0], kOptions[i].name);
        }
    }
    if (const char *conflict = FindConflict(*options)) {
        Fail(kUsage, "%s", conflict);
    }
}

}  // namespace ctl
