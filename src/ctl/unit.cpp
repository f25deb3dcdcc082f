#include "ctl/unit.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/base64.h"
#include "common/buffer.h"
#include "common/owners.h"
#include "common/text.h"
#include "kirvex/packet.h"

namespace ctl {

static constexpr char kMagic[] = "Moravelle,01,";
static constexpr int kMostFields = 64;
static constexpr size_t kMacTextLength = 17;

// A LAN with more units than this sends them to exhaust memory.
static constexpr int kMostUnits = 4096;
static constexpr int kGrowth = 64;

// The size of each text of the record, in the order in which a package carries them.
static constexpr uint8_t kTextSizes[kPackageFields] = {
    sizeof UnitInfo::model,   sizeof UnitInfo::proj,         sizeof UnitInfo::name,
    sizeof UnitInfo::ip,      sizeof UnitInfo::trigger_port, sizeof UnitInfo::netmask,
    sizeof UnitInfo::gateway, sizeof UnitInfo::dns,          sizeof UnitInfo::mac,
    sizeof UnitInfo::dev,     sizeof UnitInfo::note};
static_assert(offsetof(UnitInfo, note) + sizeof UnitInfo::note == offsetof(UnitInfo, mtu));

// Numbers in that order.
enum Text { kName = 2, kMac = 8, kNote = 10 };

bool Unit::IsSameAs(const Unit &other) const {
    return kirvex == other.kirvex && strcasecmp(info.mac, other.info.mac) == 0 &&
           strcmp(info.name, other.info.name) == 0 &&
           (info.mac[0] != '\0' || strcmp(info.note, other.info.note) == 0);
}

bool Unit::HasMac() const {
    static constexpr uint8_t kNobody[ETH_ALEN] = {};
    return (mac[0] & 1) == 0 && memcmp(mac, kNobody, sizeof mac) != 0;
}

void Unit::Place(const Links &links, int number) {
    link = number;
    bool fitting = false;
    for (int i = 0; i < links.count; ++i) {
        fitting |= (number == -1 || number == i) && links.link[i].Fits(ip);
    }
    fits = ip == 0 ? -1 : fitting;
    CopyText(interface, number == -1 ? "" : links.link[number].name);
}

bool ReadMac(const char *text, uint8_t (&mac)[ETH_ALEN]) {
    for (int i = 0; i < ETH_ALEN; ++i) {
        if (i > 0 && (*text == ':' || *text == '-')) {
            ++text;
        }
        if (strspn(text, "0123456789ABCDEFabcdef") < 2) {
            return false;
        }
        int byte = 0;
        for (const char *end = text + 2; text < end; ++text) {
            byte = byte << 4 | (*text <= '9' ? *text - '0' : (*text & 7) + 9);
        }
        mac[i] = static_cast<uint8_t>(byte);
    }
    return *text == '\0';
}

static Address AddressOf(const char *text) {
    Address address;
    return ReadAddress(text, &address) ? address : 0;
}

// Reads what stands in the record's texts.
static void ReadTexts(Unit *unit) {
    unit->ip = AddressOf(unit->info.ip);
    unit->netmask = AddressOf(unit->info.netmask);
    unit->gateway = AddressOf(unit->info.gateway);
    unit->dns = AddressOf(unit->info.dns);
    unit->prefix = unit->netmask == 0 ? -1 : PrefixOf(unit->netmask);
    ReadMac(unit->info.mac, unit->mac);
}

// Splits a text at its commas, in place, empty fields kept. Returns their number.
static int Split(char *text, char *(&fields)[kMostFields]) {
    int count = 0;
    for (char *next = text; next && count < kMostFields; ++count) {
        fields[count] = next;
        next = strchr(next, ',');
        if (next) {
            *next++ = '\0';
        }
    }
    return count;
}

// Undoes Split from `from` to `to`, both included.
static const char *Join(char *(&fields)[kMostFields], int from, int to) {
    for (int i = from + 1; i <= to; ++i) {
        fields[i][-1] = ',';
    }
    return from <= to ? fields[from] : "";
}

// Where the MAC stands, from which the fields on both sides are counted; -1 when nowhere.
static int FindMac(char *(&fields)[kMostFields], int count) {
    uint8_t mac[ETH_ALEN];
    for (int i = 8; i < count; ++i) {
        if (strlen(fields[i]) == kMacTextLength && ReadMac(fields[i], mac)) {
            return i;
        }
    }
    return -1;
}

bool ReadUnitText(const char *text, Unit *unit) {
    *unit = {};
    if (strncmp(text, kMagic, sizeof kMagic - 1) != 0) {
        return false;
    }
    CopyText(unit->protocol, "native");
    unit->prefix = unit->dhcp = unit->fits = -1;
    char copy[1024];
    CopyText(copy, text + sizeof kMagic - 1);
    char *fields[kMostFields];
    const int count = Split(copy, fields);
    const int mac = FindMac(fields, count);
    if (mac == -1) {
        CopyText(unit->info.note, Join(fields, 0, count - 1));
        return true;
    }
    for (int i = 0; i < count; ++i) {
        // The receiver of a package does not count empty fields.
        unit->fields += fields[i][0] != '\0' ? 1 : 0;
    }
    char *out = reinterpret_cast<char *>(&unit->info);
    for (int i = 0; i < kPackageFields; ++i) {
        const int from = i > kName ? mac + i - kMac : i;
        const int to = i == kName ? mac + kName - kMac : i == kNote ? count - 1 : from;
        CopyText(out, kTextSizes[i], to < count ? Join(fields, from, to) : "");
        out += kTextSizes[i];
    }
    CopyText(unit->nameServers, unit->info.dns);
    ReadTexts(unit);
    return true;
}

int ReadPackage(const char *encoded, size_t length, TakeUnit take, void *context) {
    const size_t size = length / 4 * 3 + 4;
    const HeapBlock<char> text = ZeroedBlock(size + 1);
    if (!text) {
        return 0;
    }
    const int decoded = DecodeBase64(text.get(), size, encoded, length);
    COM_XorBuffer(text.get(), decoded);
    int count = 0;
    for (const char *next = text.get(); next < text.get() + decoded; next += strlen(next) + 1) {
        Unit unit;
        if (ReadUnitText(next, &unit)) {
            take(unit, context);
            ++count;
        }
    }
    return count;
}

// Copies a text field, which may fill its bytes without a terminator.
template <size_t kSize>
static void CopyField(char (&out)[kSize], std::span<const uint8_t> packet, kx::Field field) {
    const char *text = reinterpret_cast<const char *>(packet.data() + field.offset);
    const size_t length = strnlen(text, field.size < kSize ? field.size : kSize - 1);
    memcpy(out, text, length);
    out[length] = '\0';
}

template <size_t kSize>
static void CopyAddress(char (&out)[kSize], std::span<const uint8_t> packet,
                        kx::SettingsField field) {
    CopyText(out, kx::ReadAddress(packet, field.In(kx::kReplySettings)).text);
}

bool ReadSearchReply(std::span<const uint8_t> packet, Unit *unit) {
    *unit = {};
    if (packet.size() < kx::kSearchReplySize ||
        kx::ReadInteger(packet, kx::kIdentifier) != kx::kReplyIdentifier ||
        kx::ReadInteger(packet, kx::kOperation) != kx::kDevSearch ||
        kx::ReadInteger(packet, kx::kMode) != kx::kSuccess) {
        return false;
    }
    UnitInfo &info = unit->info;
    unit->kirvex = true;
    unit->fields = unit->fits = -1;
    CopyText(unit->protocol, "kirvex");
    CopyField(unit->brand, packet, kx::kBrandName);
    CopyField(unit->firmware, packet, kx::kFirmware);
    CopyField(info.model, packet, kx::kModelName);
    CopyField(info.name, packet, kx::kCameraName.In(kx::kReplySettings));
    snprintf(info.trigger_port, sizeof info.trigger_port, "%u",
             kx::ReadInteger(packet, kx::kWebPort.In(kx::kReplySettings)));
    CopyAddress(info.ip, packet, kx::kNewAddress);
    CopyAddress(info.netmask, packet, kx::kNetmask);
    CopyAddress(info.gateway, packet, kx::kGateway);
    CopyAddress(info.dns, packet, kx::kPrimaryDns);
    CopyAddress(unit->nameServers, packet, kx::kSecondaryDns);
    unit->secondDns = AddressOf(unit->nameServers);
    snprintf(unit->nameServers, sizeof unit->nameServers, unit->secondDns != 0 ? "%s %s" : "%s",
             info.dns, ToText(unit->secondDns).text);
    // A unit with a fixed address sends another value than 1, and not 0.
    unit->dhcp = kx::ReadInteger(packet, kx::kDhcp.In(kx::kReplySettings)) == 1;
    CopyText(info.mac, kx::ReadMac(packet, kx::kBodyMac).text);
    ReadTexts(unit);
    return true;
}

UnitList::~UnitList() {
    free(units_);
}

Unit *UnitList::Find(const Unit &unit) {
    for (int i = 0; i < count_; ++i) {
        if (units_[i].IsSameAs(unit)) {
            return &units_[i];
        }
    }
    return nullptr;
}

Unit *UnitList::Take(const Unit &unit) {
    Unit *known = Find(unit);
    const int heard = known ? known->heard : 0;
    if (!known) {
        if (count_ % kGrowth == 0) {
            void *grown = count_ < kMostUnits
                              ? realloc(units_, static_cast<size_t>(count_ + kGrowth) * sizeof unit)
                              : nullptr;
            if (!grown) {
                return nullptr;
            }
            units_ = static_cast<Unit *>(grown);
        }
        known = &units_[count_++];
    }
    *known = unit;
    known->heard = heard + 1;
    return known;
}

void UnitList::Sort() {
    if (count_ == 0) {
        return;
    }
    qsort(units_, static_cast<size_t>(count_), sizeof(Unit), [](const void *a, const void *b) {
        const auto &left = *static_cast<const Unit *>(a);
        const auto &right = *static_cast<const Unit *>(b);
        if (left.ip != right.ip) {
            return left.ip < right.ip ? -1 : 1;
        }
        return strcmp(left.info.mac, right.info.mac);
    });
}

void UnitList::Drop(int at) {
    --count_;
    memmove(units_ + at, units_ + at + 1, static_cast<size_t>(count_ - at) * sizeof(Unit));
}

}  // namespace ctl
