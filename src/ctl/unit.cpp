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

void Unit::Place(const Links &links, const Link *at) {
    link = at;
    fits = ip == 0 ? -1 : at ? at->Fits(ip) : links.Fit(ip);
    CopyText(interface, at ? at->name : "");
}

// Reads a MAC address. Returns where it ends; null when there is none.
static const char *SkipMac(const char *text, uint8_t (&mac)[ETH_ALEN]) {
    for (int i = 0; i < ETH_ALEN; ++i) {
        if (i > 0 && (*text == ':' || *text == '-')) {
            ++text;
        }
        if (strspn(text, "0123456789ABCDEFabcdef") < 2) {
            return nullptr;
        }
        int byte = 0;
        for (const char *end = text + 2; text < end; ++text) {
            byte = byte << 4 | (*text <= '9' ? *text - '0' : (*text & 7) + 9);
        }
        mac[i] = static_cast<uint8_t>(byte);
    }
    return text;
}

bool ReadMac(const char *text, uint8_t (&mac)[ETH_ALEN]) {
    const char *end = SkipMac(text, mac);
    return end && *end == '\0';
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

bool ReadUnitText(const char *text, Unit *unit) {
    *unit = {};
    if (strncmp(text, kMagic, sizeof kMagic - 1) != 0) {
        return false;
    }
    CopyText(unit->protocol, "native");
    unit->prefix = unit->dhcp = unit->fits = -1;
    text += sizeof kMagic - 1;
    // Where each field begins, and behind the last one where another would. From the MAC, the first
    // field that can be one, those on both sides are counted.
    const char *fields[kMostFields + 1] = {text};
    int count = 0;
    int mac = -1;
    uint8_t bytes[ETH_ALEN];
    do {
        const size_t length = strcspn(text, ",");
        if (mac == -1 && count >= kMac && length == kMacTextLength &&
            SkipMac(text, bytes) == text + length) {
            mac = count;
        }
        // The receiver of a package does not count empty fields.
        unit->fields += length > 0 ? 1 : 0;
        text += length + 1;
        fields[++count] = text;
    } while (text[-1] != '\0' && count < kMostFields);
    if (mac == -1) {
        unit->fields = 0;
        CopyText(unit->info.note, fields[0]);
        return true;
    }
    // What is too much before the MAC is the name's.
    const int more = mac - kMac;
    count -= more;
    for (int i = kName + 1; i <= count; ++i) {
        fields[i] = fields[i + more];
    }
    char *out = reinterpret_cast<char *>(&unit->info);
    for (int i = 0; i < kPackageFields; ++i) {
        if (i < count) {
            const auto length = fields[i == kNote ? count : i + 1] - fields[i] - 1;
            snprintf(out, kTextSizes[i], "%.*s", static_cast<int>(length), fields[i]);
        }
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
    snprintf(out, kSize, "%.*s", static_cast<int>(field.size), packet.data() + field.offset);
}

static Address CopyAddress(char (&out)[16], std::span<const uint8_t> packet,
                           kx::SettingsField field) {
    const Address address = ReadNetworkOrder(packet.data() + field.In(kx::kReplySettings).offset);
    CopyText(out, ToText(address).text);
    return address;
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
    char second[sizeof info.dns];
    unit->secondDns = CopyAddress(second, packet, kx::kSecondaryDns);
    snprintf(unit->nameServers, sizeof unit->nameServers, unit->secondDns != 0 ? "%s %s" : "%s",
             info.dns, second);
    // A unit with a fixed address sends another value than 1, and not 0.
    unit->dhcp = kx::ReadInteger(packet, kx::kDhcp.In(kx::kReplySettings)) == 1;
    memcpy(unit->mac, packet.data() + kx::kBodyMac.offset, sizeof unit->mac);
    CopyText(info.mac, ToText(unit->mac).text);
    ReadTexts(unit);
    return true;
}

Unit *UnitList::Find(const Unit &unit) {
    for (Unit &known : *this) {
        if (known.IsSameAs(unit)) {
            return &known;
        }
    }
    return nullptr;
}

Unit *UnitList::Take(const Unit &unit) {
    Unit *known = Find(unit);
    const int heard = known ? known->heard : 0;
    if (!known) {
        if (!units_) {
            // The kernel gives memory to what is written alone.
            units_ = ZeroedBlock<Unit>(kMostUnits * sizeof unit);
        }
        if (!units_ || count_ == kMostUnits) {
            return nullptr;
        }
        known = begin() + count_++;
    }
    *known = unit;
    known->heard = heard + 1;
    return known;
}

void UnitList::Sort() {
    if (count_ == 0) {
        return;
    }
    qsort(units_.get(), static_cast<size_t>(count_), sizeof(Unit),
          [](const void *a, const void *b) {
              const auto &left = *static_cast<const Unit *>(a);
              const auto &right = *static_cast<const Unit *>(b);
              if (left.ip != right.ip) {
                  return left.ip < right.ip ? -1 : 1;
              }
              return strcmp(left.info.mac, right.info.mac);
          });
}

}  // namespace ctl
