#include "discovery/announce.h"

#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

#include "common/owners.h"
#include "discovery/raw_broadcast.h"
#include "frame/message.h"
#include "unit/interfaces.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kParserOrigin = TQ_ORIGIN("TQ_ParserPackage");
static constexpr char kEthernetPrefix[] = "eth";

// Encodes a package and returns its size; 0 when there is no such package.
static size_t Encode(int type, const UnitInfo &own, const UnitInfo *info, char *out) {
    switch (type) {
        case TQ_PACKAGE_QUERY:
            return discovery::EncodeQuery(own.model, out);
        case TQ_PACKAGE_UNIT_INFO:
            return discovery::EncodeUnit(TQ_PACKAGE_UNIT_INFO, own, out);
        case TQ_PACKAGE_NETWORK_SETUP:
            if (info) {
                return discovery::EncodeUnit(TQ_PACKAGE_NETWORK_SETUP, *info, out);
            }
            TQ_LOG_UNNAMED("invalid pInfo for TQ_PACKAGE_NETWORK_SETUP pkg!\n");
            return 0;
        default:
            TQ_LOG_FOR(TQ_ORIGIN("TQ_CreatePackage"), "Undefined type = %d\n", type);
            return 0;
    }
}

static int CreatePackage(unit::FactSource &facts, const char *device, int type, char *out,
                         const UnitInfo *info) {
    UnitInfo own{};
    unit::FillUnitInfo(&own, device, facts);
    const size_t size = Encode(type, own, info, out);
    // A unit without an address on this interface has nothing to say on it.
    if (size == 0 || strcmp(own.ip, kNoAddressText) == 0) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int TQ_CreatePackage(const char *device, int type, char *out, const UnitInfo *info) {
    unit::FactSource facts;
    return CreatePackage(facts, device, type, out, info);
}

int discovery::ParseReceived(std::span<char> package, UnitInfo *record) {
    const DecodedPackage decoded = DecodePackage(package, record);
    switch (decoded.fault) {
        case PackageFault::kNone:
            return decoded.type;
        case PackageFault::kNoMagic:
            TQ_LOG_FOR(kParserOrigin, "\"%s\" not found!!\n", kMagic);
            return -1;
        case PackageFault::kBadType:
            TQ_LOG_FOR(kParserOrigin, "flag(%02d) not implemented.\n", decoded.type);
            return -1;
        case PackageFault::kMissingFields:
            return -1;
    }
    return -1;
}

int TQ_ParserPackage(const char *text, UnitInfo *record) {
    if (!text) {
        return -1;
    }
    const size_t size = strlen(text) + 1;
    const HeapBlock<char> copy = ZeroedBlock(size);
    if (!copy) {
        TQ_LOG_UNNAMED("CALLOC(1, %d) error : %m\n", static_cast<int>(size));
        return -1;
    }
    memcpy(copy.get(), text, size);
    return discovery::ParseReceived({copy.get(), size}, record);
}

namespace {

// A package of one type on its way out on several interfaces.
class Announcement {
  public:
    Announcement(UniqueFd *packetSocket, int lent, int type, uint16_t port)
        : packetSocket_(packetSocket), facts_(lent), type_(type), port_(port) {}

    void SendOn(const char *device) {
        char package[discovery::kPackageSize];
        if (CreatePackage(facts_, device, type_, package, nullptr) == 0) {
            discovery::BroadcastThrough(packetSocket_, facts_, device, port_,
                                        {package, strlen(package) + 1});
        }
    }

    void SendOnEthernets();
    void SendOnNone();

  private:
    UniqueFd *packetSocket_;
    unit::FactSource facts_;
    int type_;
    uint16_t port_;
    bool defaultDeviceIsSilent_ = false;
};

}  // namespace

void Announcement::SendOnEthernets() {
    NetDeviceName *names = nullptr;
    const int count = COM_GetAllNetDevice(&names);
    const HeapBlock<NetDeviceName> owner(names);
    for (int i = count - 1; i >= 0; --i) {
        const char *name = names[i].text;
        if (strncmp(name, kEthernetPrefix, strlen(kEthernetPrefix)) == 0) {
            const unsigned before = COM_CountMessages();
            SendOn(name);
            defaultDeviceIsSilent_ |=
                COM_CountMessages() == before && strcmp(name, COM_ConvertNetDevName(nullptr)) == 0;
        }
    }
}

// Linux refuses a datagram for no interface, without a message. All that can be seen of the package
// is what the look-ups for it have to say: nothing, when the same ones have just said nothing.
void Announcement::SendOnNone() {
    in_addr gateway;
    if (!defaultDeviceIsSilent_ && facts_.Gateway(NETINFO_GATEWAY_RAW, nullptr, &gateway) == 0) {
        SendOn(nullptr);
    }
}

void discovery::SendPackageThrough(UniqueFd *packetSocket, int lent, const char *device, int type,
                                   uint16_t port) {
    Announcement announcement(packetSocket, lent, type, port);
    if (device) {
        announcement.SendOn(device);
        return;
    }
    announcement.SendOnEthernets();
    announcement.SendOnNone();
}

void TQ_SendPackage(const char *device, int type, uint16_t port) {
    UniqueFd packetSocket;
    discovery::SendPackageThrough(&packetSocket, -1, device, type, port);
}

int TQ_SendNetworkSetupPkg(const char *device, uint16_t port, const UnitInfo *info) {
    char package[discovery::kPackageSize];
    if (TQ_CreatePackage(device, TQ_PACKAGE_NETWORK_SETUP, package, info) == -1) {
        return -1;
    }
    return COM_SendUDPBroadcast(device, port, package, static_cast<int>(strlen(package)) + 1);
}
