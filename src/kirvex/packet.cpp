#include "kirvex/packet.h"

#include <cstdio>
#include <cstring>

#include "common/wire.h"

namespace kx {

uint32_t ReadInteger(std::span<const uint8_t> packet, Field field) {
    return ReadLittleEndian(packet.data() + field.offset, field.size);
}

void WriteInteger(std::span<uint8_t> packet, Field field, uint32_t value) {
    WriteLittleEndian(packet.data() + field.offset, field.size, value);
}

void WriteText(std::span<uint8_t> packet, Field field, const char *text) {
    memcpy(packet.data() + field.offset, text, strnlen(text, field.size));
}

AddressText ReadAddress(std::span<const uint8_t> packet, Field field) {
    const uint8_t *bytes = packet.data() + field.offset;
    AddressText address;
    snprintf(address.text, sizeof address.text, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2],
             bytes[3]);
    return address;
}

MacText ReadMac(std::span<const uint8_t> packet, Field field) {
    const uint8_t *bytes = packet.data() + field.offset;
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
