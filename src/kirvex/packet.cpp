#include "kirvex/packet.h"

#include <cstdio>
#include <cstring>

namespace kx {

void WriteText(uint8_t *bytes, size_t size, const char *text) {
    memcpy(bytes, text, strnlen(text, size));
}

AddressText ReadAddress(const uint8_t *bytes) {
    AddressText address;
    snprintf(address.text, sizeof address.text, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2],
             bytes[3]);
    return address;
}

MacText ReadMac(const uint8_t *bytes) {
    MacText mac;
    snprintf(mac.text, sizeof mac.text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1],
             bytes[2], bytes[3], bytes[4], bytes[5]);
    return mac;
}

void WriteHeader(std::span<uint8_t> packet, uint16_t identifier, uint16_t operation,
                 uint16_t mode) {
    WriteInteger(packet, kIdentifier, identifier);
    WriteInteger(packet, kOperation, operation);
    WriteInteger(packet, kMode, mode);
    WriteInteger(packet, kVersion, kMessageVersion);
    WriteInteger(packet, kBodyLength, static_cast<uint32_t>(packet.size() - kHeaderSize));
}

}  // namespace kx
