#include "ctl/print.h"

#include <cstdlib>
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
static void PrintValue(FILE *out, const Unit &unit, Key key) {
    NumberText buffer;
    char cell[kCellSize];
    const char *value = Value(unit, key, buffer);
    MakeHarmless(value ? value : "", cell);
    fputs(cell, out);
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
static void WalkTable(FILE *out, UnitList &units, Widths &widths) {
    for (int row = -1; row < units.count(); ++row) {
        for (int column = 0; column < kColumns; ++column) {
            char cell[kCellSize];
            if (row < 0) {
                CopyText(cell, kTable[column].heading);
            } else {
                WriteCell(units[row], column, cell);
            }
            const size_t width = DisplayWidth(cell);
            if (!out) {
                widths[column] = width > widths[column] ? width : widths[column];
                continue;
            }
            // The last column is padded for nobody.
            const bool last = column == kColumns - 1;
            PrintCell(out, cell, last && width <= widths[column] ? 0 : widths[column]);
            fputs(last ? "\n" : "  ", out);
        }
    }
}

void PrintTable(FILE *out, Survey &survey, size_t columns) {
    Widths widths = {};
    WalkTable(nullptr, survey.units(), widths);
    if (columns > 0) {
        Narrow(columns, widths);
    }
    WalkTable(out, survey.units(), widths);
}

void PrintPlain(FILE *out, const Unit &unit) {
    for (const Key key : {kName, kModel, kProject, kIp, kPrefix, kGateway, kMac, kPort, kNote,
                          kProtocol, kInterface}) {
        PrintValue(out, unit, key);
        fputc('\t', out);
    }
    const char *const marks[] = {unit.fits == 1 ? "" : ",foreign",
                                 unit.IsHeardOnce() ? ",once" : "",
                                 unit.IsWhole() ? "" : ",fields"};
    int used = 0;
    for (const char *mark : marks) {
        fputs(used == 0 && *mark != '\0' ? mark + 1 : mark, out);
        used += *mark;
    }
    fputc('\n', out);
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

void CheckFormat(const char *format) {
    for (const char *at = strstr(format, "${"); at; at = strstr(at + 2, "${")) {
        if (FindKey(at + 2) == kKeyCount) {
            fprintf(stderr, "tqctl: --format has no %.*s; it has",
                    static_cast<int>(strcspn(at, "}") + 1), at);
            for (const KeyInfo &info : kKeys) {
                fprintf(stderr, " ${%s}", info.name);
            }
            fputc('\n', stderr);
            exit(kUsage);
        }
    }
}

void PrintFormat(FILE *out, const char *format, const Unit &unit) {
    static constexpr char kEscapes[] = "tn\\";
    static constexpr char kMeanings[] = "\t\n\\";
    for (const char *at = format; *at != '\0'; ++at) {
        const char *escape = *at == '\\' && at[1] != '\0' ? strchr(kEscapes, at[1]) : nullptr;
        if (escape) {
            fputc(kMeanings[escape - kEscapes], out);
            ++at;
        } else if (at[0] == '$' && at[1] == '{') {
            PrintValue(out, unit, FindKey(at + 2));
            at = strchr(at, '}');
        } else {
            fputc(*at, out);
        }
    }
    fputc('\n', out);
}

// A list of addresses separated by blanks; null is an empty one.
static void PrintJsonList(FILE *out, const char *value) {
    char separator = '[';
    char item[sizeof Unit::nameServers];
    for (; value; value = strchr(value, ' ')) {
        value += *value == ' ' ? 1 : 0;
        fputc(separator, out);
        separator = ',';
        CopyText(item, value);
        item[strcspn(item, " ")] = '\0';
        PrintJsonString(out, item);
    }
    fputs(separator == '[' ? "[]" : "]", out);
}

static void PrintJsonUnit(FILE *out, const Unit &unit) {
    for (int i = 0; i < kKeyCount; ++i) {
        NumberText buffer;
        const char *value = Value(unit, static_cast<Key>(i), buffer);
        fprintf(out, "%c\"%s\":", i == 0 ? '{' : ',', kKeys[i].name);
        if (kKeys[i].kind == Kind::kAddresses) {
            PrintJsonList(out, value);
        } else if (!value || kKeys[i].kind >= Kind::kPort) {
            fputs(value ? value : "null", out);
        } else {
            PrintJsonString(out, value);
        }
    }
    fputc('}', out);
}

void PrintJson(FILE *out, const Survey &survey, const Unit *units, int count, const char *event) {
    fputs("{\"version\":1,", out);
    if (event) {
        fprintf(out, "\"event\":\"%s\",", event);
    }
    fputs("\"units\":[", out);
    const char *const line = event ? "" : "\n";
    for (int i = 0; i < count; ++i) {
        fprintf(out, "%s%s", i == 0 ? "" : ",", line);
        PrintJsonUnit(out, units[i]);
    }
    fprintf(out, "%s]", line);
    if (!event) {
        fputs(",\"silent\":[", out);
        for (int i = 0; i < survey.silentCount(); ++i) {
            const Silent &silent = survey.silent()[i];
            const char *const quote = silent.gateway != 0 ? "\"" : "";
            fprintf(out,
                    "%s\n{\"ip\":\"%s\",\"gateway\":%s%s%s,\"mac\":\"%s\",\"interface\":\"%s\"}",
                    i == 0 ? "" : ",", ToText(silent.address).text, quote,
                    ToText(silent.gateway, "null").text, quote, ToText(silent.mac).text,
                    survey.links().link[silent.link].name);
        }
        fputc(']', out);
    }
    fputs("}\n", out);
}

void PrintUnit(FILE *out, const Unit &unit) {
    for (int i = 0; i < kKeyCount; ++i) {
        NumberText buffer;
        if (Value(unit, static_cast<Key>(i), buffer)) {
            fprintf(out, "%-10s ", kKeys[i].name);
            PrintValue(out, unit, static_cast<Key>(i));
            fputc('\n', out);
        }
    }
}

void PrintSettings(FILE *out, Address ip, int prefix, Address gateway, Address dns) {
    fprintf(out, "%s/%d, gateway %s, name server %s\n", ToText(ip).text, prefix,
            ToText(gateway, "none").text, ToText(dns, "none").text);
}

void ExplainMarks(Survey &survey) {
    bool foreign = false;
    bool partial = false;
    for (int i = 0; i < survey.units().count(); ++i) {
        const Unit &unit = survey.units()[i];
        foreign |= unit.fits == 0;
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
        fprintf(stderr,
                "%s (%s) on %s can't answer, its gateway is %s: it may be a KIRVEX unit\n"
                "  tqctl show %s\n",
                address.text, ToText(silent.mac).text, survey.links().link[silent.link].name,
                ToText(silent.gateway, "none").text, address.text);
    }
}

}  // namespace ctl
