#include "unit/net_info.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/address.h"
#include "common/text.h"
#include "common/text_file.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr char kDefaultDevice[] = "eth0";
static constexpr size_t kMacSize = 6;

// A hardware address as the ARP table may write it; only the first six bytes are ever shown.
using HardwareAddress = std::array<uint8_t, 8>;

enum class MacForm { kHex, kHexLower, kColon, kRaw };

enum class AddressForm { kText, kPadded, kRaw };

// Two hexadecimal digits and a terminator.
static void WritePair(uint8_t byte, MacForm form, char *out) {
    const char *digits = form == MacForm::kHexLower ? "0123456789abcdef" : "0123456789ABCDEF";
    out[0] = digits[byte >> 4];
    out[1] = digits[byte & 15];
    out[2] = '\0';
}

// Joins the bytes from `start` on. A colon follows a byte while its index is below 5 - start: right
// for whole addresses; readers of the shorter forms know them to end after their second or first
// byte, and what stands behind is text beyond the terminator.
static void WriteColonForm(const HardwareAddress &mac, size_t start, char *out) {
    for (size_t i = start; i < kMacSize; ++i) {
        char *pair = out + (i - start) * 3;
        WritePair(mac[i], MacForm::kColon, pair);
        if (i + start < kMacSize - 1) {
            memcpy(pair + 2, ":", 2);
        }
    }
}

static void WriteMac(const HardwareAddress &mac, MacForm form, size_t start, void *output) {
    char *out = static_cast<char *>(output);
    if (form == MacForm::kRaw) {
        memcpy(out, mac.data() + start, kMacSize - start);
        return;
    }
    if (form == MacForm::kColon) {
        WriteColonForm(mac, start, out);
        return;
    }
    for (size_t i = start; i < kMacSize; ++i) {
        WritePair(mac[i], form, out + (i - start) * 2);
    }
}

static void WriteAddress(in_addr address, AddressForm form, void *output) {
    uint8_t bytes[4];
    memcpy(bytes, &address, sizeof bytes);
    char *out = static_cast<char *>(output);
    switch (form) {
        case AddressForm::kText:
            WriteDottedAddress(address, out);
            break;
        case AddressForm::kPadded:
            snprintf(out, sizeof kNoAddressText, "%03d.%03d.%03d.%03d", bytes[0], bytes[1],
                     bytes[2], bytes[3]);
            break;
        case AddressForm::kRaw:
            memcpy(out, bytes, sizeof bytes);
            break;
    }
}

static void WriteNoAddress(AddressForm form, void *output) {
    if (form == AddressForm::kRaw) {
        memset(output, 0, sizeof(in_addr));
    } else {
        memcpy(output, kNoAddressText, sizeof kNoAddressText);
    }
}

// Splits a line in place into at most `tokens.size()` tokens; the rest are null.
template <size_t kCount>
static std::array<char *, kCount> SplitLine(char *line, const char *delimiters) {
    std::array<char *, kCount> tokens{};
    for (char *&token : tokens) {
        token = NextToken(&line, delimiters);
    }
    return tokens;
}

const char *COM_ConvertNetDevName(const char *name) {
    if (!name) {
        return kDefaultDevice;
    }
    if (isdigit(static_cast<unsigned char>(name[0])) || strcmp(name, "auto") != 0) {
        return name;
    }
    static constexpr char kInterfaces[] = "/etc/network/interfaces";
    TextFile file(kInterfaces);
    if (!file) {
        TQ_LOG("fopen(%s) error : %m\n", kInterfaces);
        return kDefaultDevice;
    }
    char line[128];
    while (file.ReadLine(line)) {
        if (strstr(line, "auto") && !strstr(line, kDefaultDevice)) {
            return "ppp0";
        }
    }
    return kDefaultDevice;
}

int unit::FactSource::Request(unsigned long code, const char *device, ifreq *request,
                              MessageOrigin origin) {
    if (lent_ < 0 && !own_) {
        own_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!own_) {
            TQ_LOG_FOR(origin, "socket() error : %m\n");
            errno = 0;
            return -1;
        }
    }
    *request = {};
    CopyText(request->ifr_name, device);
    return ioctl(lent_ < 0 ? own_.get() : lent_, code, request);
}

// The index of the first byte that a MAC selector shows.
static size_t FirstMacByte(int selector) {
    switch (selector) {
        case NETINFO_MAC_HEX_LAST4:
        case NETINFO_MAC_COLON_LAST4:
        case NETINFO_MAC_RAW_LAST4:
        case NETINFO_ARP_MAC_HEX_LAST4:
        case NETINFO_ARP_MAC_COLON_LAST4:
            return kMacSize - 4;
        case NETINFO_MAC_HEX_LAST3:
        case NETINFO_MAC_COLON_LAST3:
        case NETINFO_MAC_RAW_LAST3:
        case NETINFO_ARP_MAC_HEX_LAST3:
        case NETINFO_ARP_MAC_COLON_LAST3:
        case NETINFO_ARP_MAC_RAW_LAST3:
            return kMacSize - 3;
        case NETINFO_MAC_RAW_LAST2:
        case NETINFO_ARP_MAC_RAW_LAST2:
            return kMacSize - 2;
        default:
            return 0;
    }
}

static int GetMac(unit::FactSource &facts, int selector, const char *device, void *output) {
    static constexpr MessageOrigin kOrigin = TQ_ORIGIN("COM_GetMAC");
    ifreq request;
    HardwareAddress mac{};
    const int result = facts.Request(SIOCGIFHWADDR, device, &request, kOrigin);
    if (result == 0) {
        memcpy(mac.data(), request.ifr_hwaddr.sa_data, kMacSize);
    } else if (errno != 0) {
        TQ_LOG_FOR(kOrigin, "ioctl() error : %m\n");
    }
    const MacForm form = selector >= NETINFO_MAC_RAW         ? MacForm::kRaw
                         : selector >= NETINFO_MAC_COLON     ? MacForm::kColon
                         : selector == NETINFO_MAC_HEX_LOWER ? MacForm::kHexLower
                                                             : MacForm::kHex;
    WriteMac(mac, form, FirstMacByte(selector), output);
    return result;
}

// Reads a pair of hex digits at every third character.
static HardwareAddress ParseHardwareAddress(const char *text) {
    HardwareAddress mac{};
    const size_t length = strlen(text);
    for (size_t i = 0; i < mac.size() && i * 3 < length; ++i) {
        mac[i] = static_cast<uint8_t>(strtol(text + i * 3, nullptr, 16));
    }
    return mac;
}

static HardwareAddress FindInArpTable(TextFile &table, const char *address) {
    char line[256];
    while (table.ReadLine(line)) {
        const auto tokens = SplitLine<6>(line, " \t\r\n");
        if (tokens[3] && strcmp(tokens[0], address) == 0) {
            return ParseHardwareAddress(tokens[3]);
        }
    }
    return {};
}

int COM_GetArpMAC(int selector, const char *address, void *output) {
    static constexpr char kArpTable[] = "/proc/net/arp";
    HardwareAddress mac{};
    TextFile table(kArpTable);
    if (table) {
        mac = FindInArpTable(table, address);
    } else {
        TQ_LOG("fopen(%s) fail : %m\n", kArpTable);
    }
    const MacForm form = selector >= NETINFO_ARP_MAC_RAW_LAST3   ? MacForm::kRaw
                         : selector >= NETINFO_ARP_MAC_COLON     ? MacForm::kColon
                         : selector == NETINFO_ARP_MAC_HEX_LOWER ? MacForm::kHexLower
                                                                 : MacForm::kHex;
    WriteMac(mac, form, FirstMacByte(selector), output);
    return -1;
}

static int GetAddress(unit::FactSource &facts, int selector, const char *device, void *output) {
    static constexpr MessageOrigin kOrigin = TQ_ORIGIN("COM_SubGetNetInfo");
    static constexpr unsigned long kRequests[] = {SIOCGIFADDR, SIOCGIFBRDADDR, SIOCGIFNETMASK};
    static constexpr AddressForm kForms[] = {AddressForm::kText, AddressForm::kPadded,
                                             AddressForm::kRaw};
    if (selector < NETINFO_IP_STR || selector > NETINFO_NETMASK_RAW) {
        TQ_LOG_FOR(kOrigin, "flag(%d) not implemented.\n", selector);
        return -1;
    }
    const size_t index = static_cast<size_t>(selector - NETINFO_IP_STR);
    const unsigned long code = kRequests[index / 3];
    const AddressForm form = kForms[index % 3];
    ifreq request;
    if (facts.Request(code, device, &request, kOrigin) != 0) {
        // An interface without an address is nothing to report.
        if (errno != 0 && errno != EADDRNOTAVAIL) {
            TQ_LOG_FOR(kOrigin, "ioctl(%d:%s) error : %m\n", static_cast<int>(code), device);
        }
        WriteNoAddress(form, output);
        return -1;
    }
    sockaddr_in address;
    memcpy(&address, &request.ifr_addr, sizeof address);
    WriteAddress(address.sin_addr, form, output);
    return 0;
}

// Reads the hexadecimal word that the kernel's route table prints: in memory its bytes are in
// network order. All ones, and what does not fit into 32 bits, is no address.
static bool ParseRouteAddress(const char *text, in_addr *address) {
    errno = 0;
    const unsigned long value = strtoul(text, nullptr, 16);
    address->s_addr = static_cast<in_addr_t>(value);
    return value < UINT32_MAX;
}

int COM_SubGetGateway(int selector, const char * /*device*/, void *output) {
    static constexpr char kRouteTable[] = "/proc/net/route";
    static constexpr char kDefault[] = "00000000";
    enum Column { kDestination = 1, kGateway = 2, kMask = 7, kColumns = 11 };
    const AddressForm form = selector == NETINFO_GATEWAY_RAW      ? AddressForm::kRaw
                             : selector == NETINFO_GATEWAY_PADDED ? AddressForm::kPadded
                                                                  : AddressForm::kText;
    WriteNoAddress(form, output);
    TextFile table(kRouteTable);
    if (!table) {
        TQ_LOG("fopen(%s) : %m\n", kRouteTable);
        return -1;
    }
    char line[256];
    while (table.ReadLine(line)) {
        const auto columns = SplitLine<kColumns>(line, "\t");
        if (!columns[kMask] || strcmp(columns[kDestination], kDefault) != 0 ||
            strcmp(columns[kMask], kDefault) != 0) {
            continue;
        }
        in_addr gateway;
        if (ParseRouteAddress(columns[kGateway], &gateway)) {
            WriteAddress(gateway, form, output);
            return 0;
        }
        TQ_LOG("strtoul() error : %m\n");
    }
    return -1;
}

static constexpr char kResolver[] = "/etc/resolv.conf";

// As wide as the longest line of the resolver file that is read at once.
using ServerText = char[160];

// Reads the next name server's text, empty where the line names nobody. A line that holds
// "nameserver" anywhere counts, also one that is commented out. Returns false when there is none.
static bool ReadNameServer(TextFile &file, ServerText &server) {
    static constexpr char kKey[] = "nameserver";
    ServerText line;
    while (file.ReadLine(line)) {
        char *found = strstr(line, kKey);
        if (found) {
            const auto tokens = SplitLine<1>(found + strlen(kKey), " \t\r\n");
            CopyText(server, tokens[0] ? tokens[0] : "");
            return true;
        }
    }
    return false;
}

// A file that isn't there names nobody.
static void ReportResolver() {
    if (errno != ENOENT) {
        TQ_LOG_FOR(TQ_ORIGIN("COM_SubGetDNS"), "fopen(%s) : %m\n", kResolver);
    }
}

int COM_SubGetDNS(int selector, const char * /*device*/, void *output) {
    const bool second = selector == NETINFO_DNS2_STR || selector == NETINFO_DNS2_PADDED ||
                        selector == NETINFO_DNS2_RAW;
    const AddressForm form = selector >= NETINFO_DNS1_RAW ? AddressForm::kRaw
                             : selector == NETINFO_DNS1_PADDED || selector == NETINFO_DNS2_PADDED
                                 ? AddressForm::kPadded
                                 : AddressForm::kText;
    WriteNoAddress(form, output);
    TextFile file(kResolver);
    if (!file) {
        ReportResolver();
        return -1;
    }
    ServerText server;
    if (!ReadNameServer(file, server) || (second && !ReadNameServer(file, server)) ||
        server[0] == '\0') {
        return -1;
    }
    if (form == AddressForm::kText) {
        CopyText(static_cast<char *>(output), sizeof kNoAddressText, server);
        return 0;
    }
    in_addr address{};
    inet_aton(server, &address);
    WriteAddress(address, form, output);
    return 0;
}

void unit::GetNameServers(std::span<uint8_t, 4> first, std::span<uint8_t, 4> second) {
    const std::array outputs = {first.data(), second.data()};
    TextFile file(kResolver);
    ServerText server;
    for (uint8_t *output : outputs) {
        in_addr address{};
        if (!file) {
            ReportResolver();
        } else if (ReadNameServer(file, server)) {
            inet_aton(server, &address);
        }
        WriteAddress(address, AddressForm::kRaw, output);
    }
}

static int GetMtu(unit::FactSource &facts, const char *device, void *output) {
    static constexpr MessageOrigin kOrigin = TQ_ORIGIN("COM_GetMTU");
    ifreq request;
    if (facts.Request(SIOCGIFMTU, device, &request, kOrigin) != 0) {
        if (errno != 0) {
            TQ_LOG_FOR(kOrigin, "ioctl() error : %m\n");
        }
        return -1;
    }
    const int32_t mtu = request.ifr_mtu;
    memcpy(output, &mtu, sizeof mtu);
    return 0;
}

int COM_GetMAC(int selector, const char *device, void *output) {
    unit::FactSource facts;
    return GetMac(facts, selector, device, output);
}

int COM_SubGetNetInfo(int selector, const char *device, void *output) {
    unit::FactSource facts;
    return GetAddress(facts, selector, device, output);
}

int COM_GetMTU(int /*selector*/, const char *device, void *output) {
    unit::FactSource facts;
    return GetMtu(facts, device, output);
}

int unit::FactSource::Mac(int selector, const char *device, void *output) {
    return GetMac(*this, selector, COM_ConvertNetDevName(device), output);
}

int unit::FactSource::Address(int selector, const char *device, void *output) {
    return GetAddress(*this, selector, COM_ConvertNetDevName(device), output);
}

int unit::FactSource::Gateway(int selector, const char *device, void *output) {
    return COM_SubGetGateway(selector, COM_ConvertNetDevName(device), output);
}

int unit::FactSource::NameServer(int selector, const char *device, void *output) {
    return COM_SubGetDNS(selector, COM_ConvertNetDevName(device), output);
}

int unit::FactSource::Mtu(const char *device, void *output) {
    return GetMtu(*this, COM_ConvertNetDevName(device), output);
}

int COM_GetNetInfo(int selector, const char *device, void *output) {
    device = COM_ConvertNetDevName(device);
    if (selector >= NETINFO_MAC_HEX && selector <= NETINFO_MAC_RAW_LAST2) {
        return COM_GetMAC(selector, device, output);
    }
    if (selector >= NETINFO_ARP_MAC_HEX && selector <= NETINFO_ARP_MAC_RAW_LAST2) {
        return COM_GetArpMAC(selector, device, output);
    }
    if (selector >= NETINFO_IP_STR && selector <= NETINFO_NETMASK_RAW) {
        return COM_SubGetNetInfo(selector, device, output);
    }
    if (selector >= NETINFO_GATEWAY_STR && selector <= NETINFO_GATEWAY_RAW) {
        return COM_SubGetGateway(selector, device, output);
    }
    if (selector >= NETINFO_DNS1_STR && selector <= NETINFO_DNS2_RAW) {
        return COM_SubGetDNS(selector, device, output);
    }
    if (selector == NETINFO_MTU) {
        return COM_GetMTU(selector, device, output);
    }
    memcpy(output, "unknown", sizeof "unknown");
    TQ_LOG("flag(%d) not implemented yet.\n", selector);
    return -1;
}
