#include "ctl/print.h"

#include <array>
#include <cstring>
#include <utility>

#include "common/text.h"
#include "ctl/text.h"

namespace ctl {

namespace {

enum class Key {
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
    kCount,
};

enum class Kind { kText, kLiteral, kList };

struct KeyInfo {
    const char *name;
    Kind kind;
};

enum Column : size_t {
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

using Widths = std::array<size_t, kColumns>;

}  // namespace

// In the order of Key.
static constexpr KeyInfo kKeys[] = {
    {"protocol", Kind::kText}, {"name", Kind::kText},      {"model", Kind::kText},
    {"project", Kind::kText},  {"ip", Kind::kText},        {"prefix", Kind::kLiteral},
    {"netmask", Kind::kText},  {"gateway", Kind::kText},   {"dns", Kind::kList},
    {"mac", Kind::kText},      {"port", Kind::kLiteral},   {"note", Kind::kText},
    {"brand", Kind::kText},    {"firmware", Kind::kText},  {"dhcp", Kind::kLiteral},
    {"device", Kind::kText},   {"interface", Kind::kText}, {"fits", Kind::kLiteral},
    {"heard", Kind::kLiteral}, {"fields", Kind::kLiteral},
};
static_assert(sizeof kKeys / sizeof *kKeys == static_cast<size_t>(Key::kCount));

static constexpr const char *kHeading[] = {"NAME",    "MODEL", "PROJECT", "ADDRESS",
                                           "GATEWAY", "MAC",   "PORT",    "NOTE"};

// The least that a text is cut to.
static constexpr size_t kLeastWidth = 6;

static bool FitsItsLink(const Unit &unit, const Links &links) {
    if (unit.link >= 0) {
        return links.link[unit.link].Fits(unit.ip);
    }
    for (int i = 0; i < links.count; ++i) {
        if (links.link[i].Fits(unit.ip)) {
            return true;
        }
    }
    return false;
}

static bool HeardOnce(const Unit &unit) {
    return unit.heard == 1 && unit.link >= 0;
}

// A text, or null when there is none.
static const char *OrNull(const char *text) {
    return text[0] != '\0' ? text : nullptr;
}

// An address as the unit wrote it; null for the ways in which units write that they have none.
static const char *GivenAddress(const char *text, Address address) {
    const bool none = address == 0 && strspn(text, "0.") == strlen(text);
    return none ? nullptr : text;
}

template <size_t kSize>
static const char *Number(char (&buffer)[kSize], int value) {
    snprintf(buffer, sizeof buffer, "%d", value);
    return buffer;
}

static const char *TruthText(bool value) {
    return value ? "true" : "false";
}

// A port that is a number, which a unit's text need not be.
static const char *Port(const Unit &unit) {
    const char *text = unit.info.trigger_port;
    const bool number = text[0] != '\0' && strspn(text, "0123456789") == strlen(text) &&
                        (text[0] != '0' || text[1] == '\0');
    return number ? text : nullptr;
}

// The value of a key as it is, or null when the unit has none. `buffer` is for what must be made.
static const char *Value(const Unit &unit, const Links &links, Key key, char (&buffer)[40]) {
    const UnitInfo &info = unit.info;
    switch (key) {
        case Key::kProtocol:
            return unit.kirvex ? "kirvex" : "native";
        case Key::kName:
            return OrNull(info.name);
        case Key::kModel:
            return OrNull(info.model);
        case Key::kProject:
            return OrNull(info.proj);
        case Key::kIp:
            return GivenAddress(info.ip, unit.ip);
        case Key::kPrefix:
            return unit.Prefix() < 0 ? nullptr : Number(buffer, unit.Prefix());
        case Key::kNetmask:
            return GivenAddress(info.netmask, unit.netmask);
        case Key::kGateway:
            return GivenAddress(info.gateway, unit.gateway);
        case Key::kDns:
            if (unit.secondDns != 0) {
                snprintf(buffer, sizeof buffer, "%s %s", info.dns, ToText(unit.secondDns).text);
                return buffer;
            }
            return GivenAddress(info.dns, unit.dns);
        case Key::kMac:
            return OrNull(info.mac);
        case Key::kPort:
            return Port(unit);
        case Key::kNote:
            return OrNull(info.note);
        case Key::kBrand:
            return OrNull(unit.brand);
        case Key::kFirmware:
            return OrNull(unit.firmware);
        case Key::kDhcp:
            return unit.kirvex ? TruthText(unit.dhcp) : nullptr;
        case Key::kDevice:
            return OrNull(info.dev);
        case Key::kInterface:
            return unit.link >= 0 ? links.link[unit.link].name : nullptr;
        case Key::kFits:
            return unit.ip != 0 ? TruthText(FitsItsLink(unit, links)) : nullptr;
        case Key::kHeard:
            return Number(buffer, unit.heard);
        case Key::kFields:
            return unit.kirvex ? nullptr : Number(buffer, unit.fields);
        case Key::kCount:
            break;
    }
    return nullptr;
}

// The same, fit for a terminal and for one column.
static void PrintValue(FILE *out, const Unit &unit, const Links &links, Key key) {
    char buffer[40];
    char cell[kCellSize];
    const char *value = Value(unit, links, key, buffer);
    MakeHarmless(value ? value : "", cell);
    fputs(cell, out);
}

// What a person should know beside what the unit says.
static void WriteNote(const Unit &unit, char (&text)[kCellSize]) {
    size_t used = 0;
    if (HeardOnce(unit)) {
        used += static_cast<size_t>(snprintf(text, sizeof text, "[heard once] "));
    }
    if (!unit.IsWhole()) {
        used += static_cast<size_t>(
            snprintf(text + used, sizeof text - used, "[%d fields] ", unit.fields));
    }
    if (unit.kirvex) {
        snprintf(text + used, sizeof text - used, "KIRVEX %s %s", unit.brand, unit.firmware);
    } else {
        CopyText(text + used, sizeof text - used, unit.info.note);
    }
}

static void WriteCell(const Unit &unit, const Links &links, size_t column,
                      char (&cell)[kCellSize]) {
    static constexpr Key kColumnKeys[] = {Key::kName,    Key::kModel, Key::kProject, Key::kIp,
                                          Key::kGateway, Key::kMac,   Key::kPort};
    char text[kCellSize];
    if (column == kAddressColumn && unit.ip != 0) {
        const bool fits = FitsItsLink(unit, links);
        const int prefix = unit.Prefix();
        char number[40];
        snprintf(text, sizeof text, "%s/%s%s", unit.info.ip,
                 prefix < 0 ? unit.info.netmask : Number(number, prefix), fits ? "" : " *");
    } else if (column == kNoteColumn) {
        WriteNote(unit, text);
    } else {
        char buffer[40];
        const char *value = Value(unit, links, kColumnKeys[column], buffer);
        CopyText(text, value ? value : "-");
    }
    MakeHarmless(text, cell);
}

// As wide as the longest text of each column, then less where a terminal has no room.
static Widths MeasureColumns(Survey &survey, size_t columns) {
    Widths widths;
    for (size_t column = 0; column < kColumns; ++column) {
        widths[column] = strlen(kHeading[column]);
        for (int i = 0; i < survey.units().count(); ++i) {
            char cell[kCellSize];
            WriteCell(survey.units()[i], survey.links(), column, cell);
            const size_t width = DisplayWidth(cell);
            widths[column] = width > widths[column] ? width : widths[column];
        }
    }
    size_t total = 2 * (kColumns - 1);
    for (const size_t width : widths) {
        total += width;
    }
    while (columns > 0 && total > columns) {
        size_t widest = kNameColumn;
        for (const size_t column : {kModelColumn, kProjectColumn, kNoteColumn}) {
            widest = widths[column] > widths[widest] ? column : widest;
        }
        if (widths[widest] <= kLeastWidth) {
            break;
        }
        --widths[widest];
        --total;
    }
    return widths;
}

void PrintTable(FILE *out, Survey &survey, size_t columns) {
    const Widths widths = MeasureColumns(survey, columns);
    for (int row = -1; row < survey.units().count(); ++row) {
        for (size_t column = 0; column < kColumns; ++column) {
            char cell[kCellSize];
            if (row < 0) {
                CopyText(cell, kHeading[column]);
            } else {
                WriteCell(survey.units()[row], survey.links(), column, cell);
            }
            // The last column is padded for nobody.
            const bool padded = column + 1 < kColumns || DisplayWidth(cell) > widths[column];
            PrintCell(out, cell, padded ? widths[column] : 0);
            fputs(column + 1 < kColumns ? "  " : "\n", out);
        }
    }
}

void PrintPlain(FILE *out, const Unit &unit, const Links &links) {
    for (const Key key :
         {Key::kName, Key::kModel, Key::kProject, Key::kIp, Key::kPrefix, Key::kGateway, Key::kMac,
          Key::kPort, Key::kNote, Key::kProtocol, Key::kInterface}) {
        PrintValue(out, unit, links, key);
        fputc('\t', out);
    }
    const char *separator = "";
    for (const auto &[set, name] :
         {std::pair(!FitsItsLink(unit, links), "foreign"), std::pair(HeardOnce(unit), "once"),
          std::pair(!unit.IsWhole(), "fields")}) {
        if (set) {
            fprintf(out, "%s%s", separator, name);
            separator = ",";
        }
    }
    fputc('\n', out);
}

// The key that `name` begins with up to a "}", or kCount.
static Key FindKey(const char *name) {
    size_t i = 0;
    for (const KeyInfo &info : kKeys) {
        const size_t length = strlen(info.name);
        if (strncmp(name, info.name, length) == 0 && name[length] == '}') {
            break;
        }
        ++i;
    }
    return static_cast<Key>(i);
}

bool IsFormat(const char *format) {
    for (const char *at = strstr(format, "${"); at; at = strstr(at + 2, "${")) {
        if (FindKey(at + 2) == Key::kCount) {
            fprintf(stderr, "tqctl: --format has no %.*s; it has",
                    static_cast<int>(strcspn(at, "}") + 1), at);
            for (const KeyInfo &info : kKeys) {
                fprintf(stderr, " ${%s}", info.name);
            }
            fputc('\n', stderr);
            return false;
        }
    }
    return true;
}

void PrintFormat(FILE *out, const char *format, const Unit &unit, const Links &links) {
    static constexpr char kEscapes[] = "t\tn\n\\\\";
    for (const char *at = format; *at != '\0'; ++at) {
        const char *escape = nullptr;
        if (*at == '\\' && at[1] != '\0') {
            escape = strchr(kEscapes, at[1]);
        }
        if (escape) {
            fputc(escape[1], out);
            ++at;
        } else if (at[0] == '$' && at[1] == '{') {
            PrintValue(out, unit, links, FindKey(at + 2));
            at = strchr(at, '}');
        } else {
            fputc(*at, out);
        }
    }
    fputc('\n', out);
}

// A list of addresses separated by blanks.
static void PrintJsonList(FILE *out, const char *value) {
    fputc('[', out);
    for (const char *next = value; next && *next != '\0';) {
        char item[40];
        const size_t length = strcspn(next, " ");
        CopyText(item, length + 1 < sizeof item ? length + 1 : sizeof item, next);
        PrintJsonString(out, item);
        next += length;
        if (*next == ' ') {
            ++next;
            fputc(',', out);
        }
    }
    fputc(']', out);
}

static void PrintJsonUnit(FILE *out, const Unit &unit, const Links &links) {
    const char *separator = "{";
    for (size_t i = 0; i < static_cast<size_t>(Key::kCount); ++i) {
        char buffer[40];
        const char *value = Value(unit, links, static_cast<Key>(i), buffer);
        fprintf(out, "%s\"%s\":", separator, kKeys[i].name);
        separator = ",";
        if (kKeys[i].kind == Kind::kList) {
            PrintJsonList(out, value);
        } else if (!value || kKeys[i].kind == Kind::kLiteral) {
            fputs(value ? value : "null", out);
        } else {
            PrintJsonString(out, value);
        }
    }
    fputc('}', out);
}

static void PrintMac(FILE *out, const uint8_t (&mac)[ETH_ALEN]) {
    fprintf(out, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void PrintJson(FILE *out, const Survey &survey, const Unit *units, int count, const char *event) {
    fputs("{\"version\":1,", out);
    if (event) {
        fprintf(out, "\"event\":\"%s\",", event);
    }
    fputs("\"units\":[", out);
    for (int i = 0; i < count; ++i) {
        fputs(event ? "" : i == 0 ? "\n" : ",\n", out);
        PrintJsonUnit(out, units[i], survey.links());
    }
    fputs(event ? "]" : "\n],\"silent\":[", out);
    for (int i = 0; !event && i < survey.silentCount(); ++i) {
        const Silent &silent = survey.silent()[i];
        fprintf(out, "%s\n{\"ip\":\"%s\",\"gateway\":", i == 0 ? "" : ",",
                ToText(silent.address).text);
        fprintf(out, silent.gateway != 0 ? "\"%s\"" : "null", ToText(silent.gateway).text);
        fputs(",\"mac\":\"", out);
        PrintMac(out, silent.mac);
        fprintf(out, "\",\"interface\":\"%s\"}", survey.links().link[silent.link].name);
    }
    fputs(event ? "}\n" : "]}\n", out);
}

void PrintUnit(FILE *out, const Unit &unit, const Links &links) {
    for (size_t i = 0; i < static_cast<size_t>(Key::kCount); ++i) {
        char buffer[40];
        if (Value(unit, links, static_cast<Key>(i), buffer)) {
            fprintf(out, "%-10s ", kKeys[i].name);
            PrintValue(out, unit, links, static_cast<Key>(i));
            fputc('\n', out);
        }
    }
}

void PrintSettings(FILE *out, const Unit &unit) {
    char name[kCellSize];
    MakeHarmless(unit.info.name, name);
    fprintf(out, "%s (%s) answers from %s/%d, gateway %s, name server %s\n", name, unit.info.mac,
            ToText(unit.ip).text, unit.Prefix(),
            unit.gateway != 0 ? ToText(unit.gateway).text : "none",
            unit.dns != 0 ? ToText(unit.dns).text : "none");
}

void ExplainMarks(Survey &survey) {
    bool foreign = false;
    bool partial = false;
    for (int i = 0; i < survey.units().count(); ++i) {
        const Unit &unit = survey.units()[i];
        foreign |= unit.ip != 0 && !FitsItsLink(unit, survey.links());
        partial |= !unit.IsWhole();
    }
    if (foreign) {
        fputs("* not in this machine's subnets\n", stderr);
    }
    if (partial) {
        fputs(
            "An answer has eleven fields: a comma in one of its texts makes more, an empty one "
            "makes fewer.\n",
            stderr);
    }
    for (int i = 0; i < survey.silentCount(); ++i) {
        const Silent &silent = survey.silent()[i];
        const AddressText address = ToText(silent.address);
        fprintf(stderr, "%s (", address.text);
        PrintMac(stderr, silent.mac);
        fprintf(stderr,
                ") on %s can't answer, its gateway is %s: it may be a KIRVEX unit\n"
                "  tqctl show %s\n",
                survey.links().link[silent.link].name,
                silent.gateway != 0 ? ToText(silent.gateway).text : "none", address.text);
    }
}

}  // namespace ctl
