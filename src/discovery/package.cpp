#include "discovery/package.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "common/address.h"
#include "common/buffer.h"
#include "common/text.h"

using discovery::kMagic;

static constexpr size_t kMagicLength = sizeof kMagic - 1;
static constexpr size_t kMacLength = 17;

namespace {

enum class FieldRule { kAny, kAddress, kPort, kMac };

struct PackageField {
    size_t offset;
    size_t size;
    FieldRule rule;
};

}  // namespace

#define TQ_PACKAGE_FIELD(name, rule) \
    { offsetof(UnitInfo, name), sizeof(UnitInfo::name), rule }

// The record's fields in the order in which a package carries them.
static constexpr std::array<PackageField, 11> kFields = {{
    TQ_PACKAGE_FIELD(model, FieldRule::kAny),
    TQ_PACKAGE_FIELD(proj, FieldRule::kAny),
    TQ_PACKAGE_FIELD(name, FieldRule::kAny),
    TQ_PACKAGE_FIELD(ip, FieldRule::kAddress),
    TQ_PACKAGE_FIELD(trigger_port, FieldRule::kPort),
    TQ_PACKAGE_FIELD(netmask, FieldRule::kAddress),
    TQ_PACKAGE_FIELD(gateway, FieldRule::kAny),
    TQ_PACKAGE_FIELD(dns, FieldRule::kAny),
    TQ_PACKAGE_FIELD(mac, FieldRule::kMac),
    TQ_PACKAGE_FIELD(dev, FieldRule::kAny),
    TQ_PACKAGE_FIELD(note, FieldRule::kAny),
}};

#undef TQ_PACKAGE_FIELD

// Writes the magic word and the type as two digits. Returns the text's end.
static char *WriteHead(TQ_PackageType type, char *out) {
    memcpy(out, kMagic, kMagicLength);
    out += kMagicLength;
    *out++ = ',';
    *out++ = '0';
    *out++ = static_cast<char>('0' + type);
    return out;
}

// Writes a comma and a text. Returns the text's end.
static char *WriteField(const char *text, size_t length, char *out) {
    *out++ = ',';
    memcpy(out, text, length);
    return out + length;
}

size_t discovery::WriteUnitText(TQ_PackageType type, const UnitInfo &record, char *out) {
    const char *bytes = reinterpret_cast<const char *>(&record);
    char *end = WriteHead(type, out);
    for (const PackageField &field : kFields) {
        const char *text = bytes + field.offset;
        end = WriteField(text, strnlen(text, field.size - 1), end);
    }
    *end++ = '\0';
    return static_cast<size_t>(end - out);
}

size_t discovery::EncodeTexts(std::span<char> texts, char *out) {
    const int length = static_cast<int>(texts.size());
    COM_XorBuffer(texts.data(), length);
    return static_cast<size_t>(COM_Base64Encode(out, texts.data(), length));
}

size_t discovery::EncodeQuery(const char *model, char *out) {
    char text[kUnitTextSize];
    const size_t length = std::min(strlen(model), sizeof UnitInfo::model - 1);
    char *end = WriteField(model, length, WriteHead(TQ_PACKAGE_QUERY, text));
    *end++ = '\0';
    return EncodeTexts({text, end}, out) + 1;
}

size_t discovery::EncodeUnit(TQ_PackageType type, const UnitInfo &record, char *out) {
    char text[kUnitTextSize];
    return EncodeTexts({text, WriteUnitText(type, record, text)}, out) + 1;
}

static bool IsAcceptable(const char *token, FieldRule rule, int type) {
    switch (rule) {
        case FieldRule::kAddress: {
            in_addr address;
            // What a network setup carries is written into files that scripts read.
            return type == TQ_PACKAGE_NETWORK_SETUP ? ParseDottedAddress(token, &address)
                                                    : inet_aton(token, &address) != 0;
        }
        case FieldRule::kPort: {
            const int port = ParseInt(token);
            return port >= 0 && port <= 65535 && !strchr(token, '.');
        }
        case FieldRule::kMac:
            return strchr(token, ':') && strlen(token) == kMacLength;
        case FieldRule::kAny:
            break;
    }
    return true;
}

// Splits the text behind the magic word and fills the record. Returns the type, -1 for a field that
// failed its check.
static int ReadFields(char *text, UnitInfo *record, size_t *count) {
    static constexpr char kSeparators[] = ",\n";
    *count = 0;
    const char *token = NextToken(&text, kSeparators);
    if (!token) {
        return -1;
    }
    const int type = ParseInt(token);
    while (type != -1 && *count < kFields.size()) {
        token = NextToken(&text, kSeparators);
        if (!token) {
            break;
        }
        const PackageField &field = kFields[*count];
        if (!IsAcceptable(token, field.rule, type)) {
            return -1;
        }
        CopyText(reinterpret_cast<char *>(record) + field.offset, field.size, token);
        ++*count;
    }
    return type;
}

// Inverts a text up to its first zero byte, which ends a text that was not inverted to its end.
static void InvertText(char *text) {
    for (; *text != '\0'; ++text) {
        *text = static_cast<char>(~*text);
    }
}

discovery::DecodedPackage discovery::DecodePackage(std::span<char> package, UnitInfo *record) {
    if (package.size() < Base64TextSize(kMagicLength) - 1) {
        return {PackageFault::kNoMagic, -1};
    }
    char *text = package.data();
    const int length = DecodeBase64(text, package.size(), text, package.size());
    // Decoding shortens: zeros follow the text, so that it has an end, and an empty rest behind a
    // bare magic word.
    memset(text + length, 0, package.size() - static_cast<size_t>(length));
    InvertText(text);
    if (strncmp(text, kMagic, kMagicLength) != 0) {
        return {PackageFault::kNoMagic, -1};
    }
    size_t count;
    const int type = ReadFields(text + kMagicLength + 1, record, &count);
    if (type == TQ_PACKAGE_QUERY) {
        return {PackageFault::kNone, type};
    }
    if (type < TQ_PACKAGE_QUERY || type > TQ_PACKAGE_NETWORK_SETUP) {
        return {PackageFault::kBadType, type};
    }
    if (count < kFields.size()) {
        snprintf(record->note, sizeof record->note, "%d/%d", static_cast<int>(count),
                 static_cast<int>(kFields.size()));
        return {PackageFault::kMissingFields, type};
    }
    return {PackageFault::kNone, type};
}
