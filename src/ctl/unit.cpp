#include "ctl/unit.h"

#include <strings.h>

#include <cctype>
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

bool Unit::IsSameAs(const Unit &other) const {
    return kirvex == other.kirvex && strcasecmp(info.mac, other.info.mac) == 0 &&
           strcmp(info.name, other.info.name) == 0 &&
           (HasMac() || strcmp(info.note, other.info.note) == 0);
}

bool ReadMac(const char *text, uint8_t (&mac)[ETH_ALEN]) {
    for (int i = 0; i < ETH_ALEN; ++i) {
        if (i > 0 && (*text == ':' || *text == '-')) {
            ++text;
        }
        unsigned value;
        if (!isxdigit(static_cast<unsigned char>(text[0])) ||
            !isxdigit(static_cast<unsigned char>(text[1])) || sscanf(text, "%2x", &value) != 1) {
            return false;
        }
        mac[i] = static_cast<uint8_t>(value);
        text += 2;
    }
    return *text == '\0';
}

static Address AddressOf(const char *text) {
    Address address;
    return ReadAddress(text, &address) ? address : 0;
}

static void ReadAddresses(Unit *unit) {
    unit->ip = AddressOf(unit->info.ip);
    unit->netmask = AddressOf(unit->info.netmask);
    unit->gateway = AddressOf(unit->info.gateway);
    unit->dns = AddressOf(unit->info.dns);
}

// Splits a text at its commas, in place, empty fields kept. Returns their number.
static int Split(char *text, char *(&fields)[kMostFields]) {
    int count = 0;
    for (char *next = text; next && count < kMostFields;) {
        fields[count++] = strsep(&next, ",");
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
    char copy[1024];
    CopyText(copy, text + sizeof kMagic - 1);
    char *fields[kMostFields];
    UnitInfo &info = unit->info;
    const int count = Split(copy, fields);
    unit->fields = count;
    const int mac = FindMac(fields, count);
    if (mac == -1) {
        unit->fields = 0;
        CopyText(info.note, Join(fields, 0, count - 1));
        return true;
    }
    for (int i = 0; i < count; ++i) {
        // The receiver of a package does not count empty fields.
        unit->fields -= fields[i][0] == '\0' ? 1 : 0;
    }
    CopyText(info.model, fields[0]);
    CopyText(info.proj, fields[1]);
    CopyText(info.ip, fields[mac - 5]);
    CopyText(info.trigger_port, fields[mac - 4]);
    CopyText(info.netmask, fields[mac - 3]);
    CopyText(info.gateway, fields[mac - 2]);
    CopyText(info.dns, fields[mac - 1]);
    CopyText(info.mac, fields[mac]);
    CopyText(info.dev, mac + 1 < count ? fields[mac + 1] : "");
    CopyText(info.name, Join(fields, 2, mac - 6));
    CopyText(info.note, Join(fields, mac + 2, count - 1));
    ReadMac(info.mac, unit->mac);
    ReadAddresses(unit);
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

static Address CopyAddress(char (&text)[16], std::span<const uint8_t> packet,
                           kx::SettingsField field) {
    CopyText(text, kx::ReadAddress(packet, field.In(kx::kReplySettings)).text);
    return AddressOf(text);
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
    CopyField(unit->brand, packet, kx::kBrandName);
    CopyField(unit->firmware, packet, kx::kFirmware);
    CopyField(info.model, packet, kx::kModelName);
    CopyField(info.name, packet, kx::kCameraName.In(kx::kReplySettings));
    snprintf(info.trigger_port, sizeof info.trigger_port, "%u",
             kx::ReadInteger(packet, kx::kWebPort.In(kx::kReplySettings)));
    unit->ip = CopyAddress(info.ip, packet, kx::kNewAddress);
    unit->netmask = CopyAddress(info.netmask, packet, kx::kNetmask);
    unit->gateway = CopyAddress(info.gateway, packet, kx::kGateway);
    unit->dns = CopyAddress(info.dns, packet, kx::kPrimaryDns);
    char second[sizeof info.dns];
    unit->secondDns = CopyAddress(second, packet, kx::kSecondaryDns);
    // A unit with a fixed address sends another value than 1, and not 0.
    unit->dhcp = kx::ReadInteger(packet, kx::kDhcp.In(kx::kReplySettings)) == 1;
    CopyText(info.mac, kx::ReadMac(packet, kx::kBodyMac).text);
    ReadMac(info.mac, unit->mac);
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

bool UnitList::Take(const Unit &unit) {
    if (Unit *known = Find(unit)) {
        const int heard = known->heard + 1;
        *known = unit;
        known->heard = heard;
        return false;
    }
    if (count_ == kMostUnits) {
        return false;
    }
    if (count_ == room_) {
        const int room = room_ == 0 ? 64 : room_ * 2;
        void *grown = realloc(units_, static_cast<size_t>(room) * sizeof(Unit));
        if (!grown) {
            return false;
        }
        units_ = static_cast<Unit *>(grown);
        room_ = room;
    }
    units_[count_] = unit;
    units_[count_++].heard = 1;
    return true;
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
