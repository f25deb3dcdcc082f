#include "discovery/announce.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/owners.h"
#include "discovery/raw_broadcast.h"
#include "frame/message.h"
#include "unit/interfaces.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kParserOrigin{kSource, "TQ_ParserPackage"};
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
            TQ_LOG_FOR((MessageOrigin{kSource, "TQ_CreatePackage"}), "Undefined type = %d\n", type);
            return 0;
    }
}

int TQ_CreatePackage(const char *device, int type, char *out, const UnitInfo *info) {
    UnitInfo own{};
    COM_GetUnitInfo(&own, device);
    const size_t size = Encode(type, own, info, out);
    // A unit without an address on this interface has nothing to say on it.
    if (size == 0 || strcmp(own.ip, kNoAddressText) == 0) {
        out[0] = '\0';
        return -1;
    }
    return 0;
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
        TQ_LOG_UNNAMED("CALLOC(1, %d) error : %s\n", static_cast<int>(size), strerror(errno));
        return -1;
    }
    memcpy(copy.get(), text, size);
    return discovery::ParseReceived({copy.get(), size}, record);
}

static void SendPackageOn(UniqueFd *sock, const char *device, int type, uint16_t port) {
    char package[discovery::kPackageSize];
    if (TQ_CreatePackage(device, type, package, nullptr) == 0) {
        BroadcastThrough(sock, device, port, package, static_cast<int>(strlen(package)) + 1);
    }
}

void TQ_SendPackage(const char *device, int type, uint16_t port) {
    UniqueFd sock;
    if (device) {
        SendPackageOn(&sock, device, type, port);
        return;
    }
    NetDeviceName *names = nullptr;
    const int count = COM_GetAllNetDevice(&names);
    const HeapBlock<NetDeviceName> owner(names);
    for (int i = count - 1; i >= 0; --i) {
        if (strncmp(names[i].text, kEthernetPrefix, strlen(kEthernetPrefix)) == 0) {
            SendPackageOn(&sock, names[i].text, type, port);
        }
    }
    in_addr gateway;
    if (COM_GetNetInfo(NETINFO_GATEWAY_RAW, nullptr, &gateway) == 0) {
        SendPackageOn(&sock, nullptr, type, port);
    }
}

int TQ_SendNetworkSetupPkg(const char *device, uint16_t port, const UnitInfo *info) {
    char package[discovery::kPackageSize];
    if (TQ_CreatePackage(device, TQ_PACKAGE_NETWORK_SETUP, package, info) == -1) {
        return -1;
    }
    return COM_SendUDPBroadcast(device, port, package, static_cast<int>(strlen(package)) + 1);
}
