#include "ctl/print.h"

#include <cstdio>
#include <cstring>

#include "common/text.h"
#include "ctl/text.h"

namespace ctl {

namespace {

enum Key : uint8_t {
    kProtocol,
    kName,
    kModel,
    kProject,
    kIp,
    kPrefix,
    kNetmask,
    kGateway,
    kDns,
    kMac,
    kPort,
    kNote,
    kBrand,
    kFirmware,
    kDhcp,
    kDevice,
    kInterface,
    kFits,
    kHeard,
    kFields,
    kKeyCount,
};

// A port is a text that need not be a number.
enum class Kind : uint8_t { kText, kAddress, kAddresses, kPort, kNumber, kTruth };

struct KeyInfo {
    char name[11];
    Kind kind;
    uint16_t offset;  // in Unit
};

enum Column : uint8_t {
    kNameColumn,
    kModelColumn,
    kProjectColumn,
    kAddressColumn,
    kGatewayColumn,
    kMacColumn,
    kPortColumn,
    kNoteColumn,
    kColumns,
};

struct ColumnInfo {
    char heading[8];
    Key key;
};

using Widths = size_t[kColumns];
using NumberText = char[12];

}  // namespace

// In the order of Key.
static constexpr KeyInfo kKeys[] = {
    {"protocol", Kind::kText, offsetof(Unit, protocol)},
    {"name", Kind::kText, offsetof(Unit, info.name)},
    {"model", Kind::kText, offsetof(Unit, info.model)},
    {"project", Kind::kText, offsetof(Unit, info.proj)},
    {"ip", Kind::kAddress, offsetof(Unit, info.ip)},
    {"prefix", Kind::kNumber, offsetof(Unit, prefix)},
    {"netmask", Kind::kAddress, offsetof(Unit, info.netmask)},
    {"gateway", Kind::kAddress, offsetof(Unit, info.gateway)},
    {"dns", Kind::kAddresses, offsetof(Unit, nameServers)},
    {"mac", Kind::kText, offsetof(Unit, info.mac)},
    {"port", Kind::kPort, offsetof(Unit, info.trigger_port)},
    {"note", Kind::kText, offsetof(Unit, info.note)},
    {"brand", Kind::kText, offsetof(Unit, brand)},
    {"firmware", Kind::kText, offsetof(Unit, firmware)},
    {"dhcp", Kind::kTruth, offsetof(Unit, dhcp)},
    {"device", Kind::kText, offsetof(Unit, info.dev)},
    {"interface", Kind::kText, offsetof(Unit, interface)},
    {"fits", Kind::kTruth, offsetof(Unit, fits)},
    {"heard", Kind::kNumber, offsetof(Unit, heard)},
    {"fields", Kind::kNumber, offsetof(Unit, fields)},
};
static_assert(sizeof kKeys / sizeof *kKeys == kKeyCount);

// In the order of Column.
static constexpr ColumnInfo kTable[kColumns] = {
    {"NAME", kName},       {"MODEL", kModel}, {"PROJECT", kProject}, {"ADDRESS", kIp},
    {"GATEWAY", kGateway}, {"MAC", kMac},     {"PORT", kPort},       {"NOTE", kNote}};

// The least that a text is cut to.
static constexpr size_t kLeastWidth = 6;

// The value of a key as it is, or null when the unit has none.
static const char *Value(const Unit &unit, Key key, NumberText &buffer) {
    const char *place = reinterpret_cast<const char *>(&unit) + kKeys[key].offset;
    int number = 0;
    switch (kKeys[key].kind) {
        case Kind::kAddress:
        case Kind::kAddresses:
            // All the ways in which units write that they have none.
            return place[strspn(place, "0.")] != '\0' ? place : nullptr;
        case Kind::kPort:
            if (place[strspn(place, "0123456789")] != '\0' ||
                (place[0] == '0' && place[1] != '\0')) {
                return nullptr;
            }
            [[fallthrough]];
        case Kind::kText:
            return place[0] != '\0' ? place : nullptr;
        case Kind::kNumber:
        case Kind::kTruth:
            memcpy(&number, place, sizeof number);
    }
    if (number < 0) {
        return nullptr;
    }
    if (kKeys[key].kind == Kind::kTruth) {
        return number != 0 ? "true" : "false";
    }
    snprintf(buffer, sizeof buffer, "%d", number);
    return buffer;
}

// The same, fit for a terminal and for one column.
static void PrintValue(const Unit &unit, Key key) {
    NumberText buffer;
    char cell[kCellSize];
    const char *value = Value(unit, key, buffer);
    MakeHarmless(value ? value : "", cell);
    printf("%s", cell);
}

// Writes one cell of the table. Notes tell what a person should know beside what the unit says.
static void WriteCell(const Unit &unit, int column, char (&cell)[kCellSize]) {
    char text[kCellSize];
    NumberText number;
    const char *value = Value(unit, kTable[column].key, number);
    if (column == kAddressColumn && unit.ip != 0) {
        const char *prefix = Value(unit, kPrefix, number);
        snprintf(text, sizeof text, "%s/%s%s", unit.info.ip, prefix ? prefix : unit.info.netmask,
                 unit.fits == 0 ? " *" : "");
    } else if (column == kNoteColumn) {
        char fields[24] = "";
        if (!unit.IsWhole()) {
            snprintf(fields, sizeof fields, "[%d fields] ", unit.fields);
        }
        snprintf(text, sizeof text, "%s%s%s%s%s%s", unit.IsHeardOnce() ? "[heard once] " : "",
                 fields, unit.kirvex ? "KIRVEX " : unit.info.note, unit.brand,
                 unit.kirvex ? " " : "", unit.firmware);
    } else {
        CopyText(text, value ? value : "-");
    }
    MakeHarmless(text, cell);
}

// Takes from the widest texts until all columns have room.
static void Narrow(size_t room, Widths &widths) {
    size_t total = size_t{2} * (kColumns - 1);
    for (const size_t width : widths) {
        total += width;
    }
    for (; total > room; --total) {
        size_t *widest = widths;
        for (const Column column : {kModelColumn, kProjectColumn, kNoteColumn}) {
            widest = widths[column] > *widest ? &widths[column] : widest;
        }
        if (*widest <= kLeastWidth) {
            return;
        }
        --*widest;
    }
}

// Measures how wide each column must be, or prints all.
static void WalkTable(UnitList &units, bool print, Widths &widths) {
    for (int row = -1; row < units.count(); ++row) {
        for (int column = 0; column < kColumns; ++column) {
            char cell[kCellSize];
            if (row < 0) {
                CopyText(cell, kTable[column].heading);
            } else {
                WriteCell(units.begin()[row], column, cell);
            }
            const size_t width = DisplayWidth(cell);
            if (!print) {
                widths[column] = width > widths[column] ? width : widths[column];
                continue;
            }
            // The last column is padded for nobody.
            const bool last = column == kColumns - 1;
            PrintCell(cell, last && width <= widths[column] ? 0 : widths[column]);
            printf(last ? "\n" : "  ");
        }
    }
}

void PrintTable(Survey &survey, int columns) {
    Widths widths = {};
    WalkTable(survey.units(), false, widths);
    if (columns > 0) {
        Narrow(static_cast<size_t>(columns), widths);
    }
    WalkTable(survey.units(), true, widths);
}

void PrintPlain(const Unit &unit) {
    for (const Key key : {kName, kModel, kProject, kIp, kPrefix, kGateway, kMac, kPort, kNote,
                          kProtocol, kInterface}) {
        PrintValue(unit, key);
        putchar('\t');
    }
    const char *const marks[] = {unit.fits == 1 ? nullptr : "foreign",
                                 unit.IsHeardOnce() ? "once" : nullptr,
                                 unit.IsWhole() ? nullptr : "fields"};
    const char *separator = "";
    for (const char *mark : marks) {
        if (mark) {
            printf("%s%s", separator, mark);
            separator = ",";
        }
    }
    putchar('\n');
}

// The key that `name` begins with up to a "}", or kKeyCount.
static Key FindKey(const char *name) {
    int i = 0;
    for (; i < kKeyCount; ++i) {
        const size_t length = strlen(kKeys[i].name);
        if (strncmp(name, kKeys[i].name, length) == 0 && name[length] == '}') {
            break;
        }
    }
    return static_cast<Key>(i);
}

static bool IsKeyAt(const char *at) {
    return at[0] == '$' && at[1] == '{';
}

void CheckFormat(const char *format) {
    for (const char *at = format; *at != '\0'; ++at) {
        if (IsKeyAt(at) && FindKey(at + 2) == kKeyCount) {
            for (const KeyInfo &info : kKeys) {
                Say("${%s}", info.name);
            }
            Fail(kUsage, "--format has no %.*s, but the above",
                 static_cast<int>(strcspn(at, "}") + 1), at);
        }
    }
}

void PrintFormat(const char *format, const Unit &unit) {
    static constexpr char kEscapes[] = "tn\\";
    static constexpr char kMeanings[] = "\t\n\\";
    for (const char *at = format; *at != '\0'; ++at) {
        const char *escape = *at == '\\' && at[1] != '\0' ? strchr(kEscapes, at[1]) : nullptr;
        if (IsKeyAt(at)) {
            PrintValue(unit, FindKey(at + 2));
            at = strchr(at, '}');
            continue;
        }
        putchar(escape ? kMeanings[escape - kEscapes] : *at);
        at += escape ? 1 : 0;
    }
    putchar('\n');
}

// A list of addresses separated by blanks; null is an empty one.
static void PrintJsonList(const char *value) {
    char item[sizeof Unit::nameServers];
    putchar('[');
    for (const char *next; value; value = next) {
        next = strchr(value, ' ');
        CopyText(item, value);
        item[strcspn(item, " ")] = '\0';
        PrintJsonString(item);
        if (next) {
            putchar(',');
            ++next;
        }
    }
    putchar(']');
}

static void PrintJsonUnit(const Unit &unit) {
    for (int i = 0; i < kKeyCount; ++i) {
        NumberText buffer;
        const char *value = Value(unit, static_cast<Key>(i), buffer);
        printf("%c\"%s\":", i == 0 ? '{' : ',', kKeys[i].name);
        if (kKeys[i].kind == Kind::kAddresses) {
            PrintJsonList(value);
        } else if (!value || kKeys[i].kind >= Kind::kPort) {
            printf("%s", value ? value : "null");
        } else {
            PrintJsonString(value);
        }
    }
    putchar('}');
}

static const char *Separator(int number) {
    return number == 0 ? "" : ",\n";
}

void PrintJson(const Survey &survey, const Unit *units, int count, const char *event) {
    printf("{\"version\":1,");
    if (event) {
        printf("\"event\":\"%s\",", event);
    }
    printf("\"units\":[");
    for (int i = 0; i < count; ++i) {
        printf("%s", Separator(i));
        PrintJsonUnit(units[i]);
    }
    if (!event) {
        printf("],\"silent\":[");
        int number = 0;
        for (const Silent &silent : survey.silent()) {
            const char *const quote = silent.gateway != 0 ? "\"" : "";
            printf("%s{\"ip\":\"%s\",\"gateway\":%s%s%s,\"mac\":\"%s\",\"interface\":\"%s\"}",
                   Separator(number++), ToText(silent.address).text, quote,
                   ToText(silent.gateway, "null").text, quote, ToText(silent.mac).text,
                   silent.link->name);
        }
    }
    printf("]}");
    putchar('\n');
}

void PrintUnit(const Unit &unit) {
    for (int i = 0; i < kKeyCount; ++i) {
        NumberText buffer;
        if (Value(unit, static_cast<Key>(i), buffer)) {
            printf("%-10s ", kKeys[i].name);
            PrintValue(unit, static_cast<Key>(i));
            putchar('\n');
        }
    }
}

SettingsText DescribeSettings(Address ip, int prefix, Address gateway, Address dns) {
    SettingsText out;
    snprintf(out.text, sizeof out.text, "%s/%d, gateway %s, name server %s", ToText(ip).text,
             prefix, ToText(gateway, "none").text, ToText(dns, "none").text);
    return out;
}

void ExplainMarks(Survey &survey) {
    bool foreign = false;
    bool partial = false;
    for (const Unit &unit : survey.units()) {
        foreign |= unit.fits == 0;
        partial |= !unit.IsWhole();
    }
    if (foreign) {
        Say("* not in this machine's subnets");
    }
    if (partial) {
        Say("A whole answer has 11 fields: a comma in a text makes more, an empty text fewer");
    }
    for (const Silent &silent : survey.silent()) {
        const AddressText address = ToText(silent.address);
        Say("%s (%s) on %s can't answer, its gateway is %s: it may be a KIRVEX unit\n"
            "  tqctl show %s",
            address.text, ToText(silent.mac).text, silent.link->name,
            ToText(silent.gateway, "none").text, address.text);
    }
}

}  // namespace ctl
