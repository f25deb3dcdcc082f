#include "discovery/package.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/address.h"
#include "common/base64.h"
#include "common/buffer.h"
#include "common/owners.h"
#include "common/text.h"
#include "frame/message.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "TQ";
static constexpr char kMagic[] = "Moravelle";
static constexpr size_t kMagicLength = sizeof kMagic - 1;
static constexpr size_t kMacLength = 17;
static constexpr size_t kTextSize = 512;

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

static_assert(kUnitTextSize <= kTextSize);

size_t WriteUnitText(int type, const UnitInfo &info, char *out) {
    const char *record = reinterpret_cast<const char *>(&info);
    size_t length = static_cast<size_t>(snprintf(out, kUnitTextSize, "%s,%02d", kMagic, type));
    for (const PackageField &field : kFields) {
        const size_t textLength = strnlen(record + field.offset, field.size - 1);
        out[length++] = ',';
        memcpy(out + length, record + field.offset, textLength);
        length += textLength;
    }
    out[length++] = '\0';
    return length;
}

// Inverts and encodes a package text. Returns the characters with the zero byte that ends them.
static size_t EncodeText(char *text, size_t size, char *out) {
    const int length = static_cast<int>(size);
    COM_XorBuffer(text, length);
    return static_cast<size_t>(COM_Base64Encode(out, text, length)) + 1;
}

size_t EncodeQuery(const char *model, char *out) {
    char text[kTextSize];
    const int length =
        snprintf(text, sizeof text, "%s,%02d,%.*s", kMagic, static_cast<int>(TQ_PACKAGE_QUERY),
                 static_cast<int>(sizeof(UnitInfo::model)), model);
    return EncodeText(text, static_cast<size_t>(length) + 1, out);
}

size_t EncodeUnit(int type, const UnitInfo &info, char *out) {
    char text[kTextSize];
    return EncodeText(text, WriteUnitText(type, info, text), out);
}

// Encodes what a unit that is `own` says. Returns 0 when there is no such package.
static size_t EncodeOwn(int type, const UnitInfo &own, const UnitInfo *info, char *out) {
    switch (type) {
        case TQ_PACKAGE_QUERY:
            return EncodeQuery(own.model, out);
        case TQ_PACKAGE_UNIT_INFO:
            return EncodeUnit(type, own, out);
        case TQ_PACKAGE_NETWORK_SETUP:
            if (info) {
                return EncodeUnit(type, *info, out);
            }
            TQ_LOG_UNNAMED("invalid pInfo for TQ_PACKAGE_NETWORK_SETUP pkg!\n");
            return 0;
        default:
            TQ_LOG_FOR((MessageOrigin{kSource, "TQ_CreatePackage"}), "Undefined type = %d\n", type);
            return 0;
    }
}

int TQ_CreatePackage(const char *device, int type, char *out, const UnitInfo *info) {
    UnitInfo own{};
    COM_GetUnitInfo(&own, device);
    // A unit without an address on this interface has nothing to say on it.
    if (EncodeOwn(type, own, info, out) == 0 || strcmp(own.ip, kNoAddressText) == 0) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

static bool IsAcceptable(const char *token, FieldRule rule) {
    switch (rule) {
        case FieldRule::kAddress: {
            in_addr address;
            return ParseDottedAddress(token, &address);
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
    char *rest = nullptr;
    char *token = strtok_r(text, kSeparators, &rest);
    if (!token) {
        return -1;
    }
    const int type = ParseInt(token);
    while (type != -1 && *count < kFields.size()) {
        token = strtok_r(nullptr, kSeparators, &rest);
        if (!token) {
            break;
        }
        const PackageField &field = kFields[*count];
        if (!IsAcceptable(token, field.rule)) {
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

int TQ_ParserPackage(const char *text, UnitInfo *record) {
    if (!text) {
        return -1;
    }
    // Decoding shortens: the text's own length holds what comes out, and a terminator.
    const size_t length = strlen(text);
    const HeapBlock<char> decoded = ZeroedBlock(length + 1);
    if (!decoded) {
        TQ_LOG_UNNAMED("CALLOC(1, %d) error : %s\n", static_cast<int>(length + 1), strerror(errno));
        return -1;
    }
    COM_Base64Decode(decoded.get(), text);
    InvertText(decoded.get());
    if (strncmp(decoded.get(), kMagic, kMagicLength) != 0) {
        TQ_LOG("\"%s\" not found!!\n", kMagic);
        return -1;
    }
    size_t count;
    const int type = ReadFields(decoded.get() + kMagicLength + 1, record, &count);
    if (type == TQ_PACKAGE_QUERY) {
        return type;
    }
    if (type < TQ_PACKAGE_QUERY || type > TQ_PACKAGE_NETWORK_SETUP) {
        TQ_LOG("flag(%02d) not implemented.\n", type);
        return -1;
    }
    if (count < kFields.size()) {
        snprintf(record->note, sizeof record->note, "%d/%d", static_cast<int>(count),
                 static_cast<int>(kFields.size()));
        return -1;
    }
    return type;
}
