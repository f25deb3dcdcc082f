// Integers as they stand on the wire, whatever the machine's own byte order.
#pragma once

#include <cstdint>

inline uint16_t ReadBigEndian16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline void WriteBigEndian16(uint8_t *bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}
