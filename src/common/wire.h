// Integers as they stand on the wire, whatever the machine's own byte order.
#pragma once

#include <cstddef>
#include <cstdint>

inline uint16_t ReadBigEndian16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline void WriteBigEndian16(uint8_t *bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

// Little-endian integers of `size` bytes, at most 4.
inline uint32_t ReadLittleEndian(const uint8_t *bytes, size_t size) {
    uint32_t value = 0;
    while (size > 0) {
        value = value << 8 | bytes[--size];
    }
    return value;
}

inline void WriteLittleEndian(uint8_t *bytes, size_t size, uint32_t value) {
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}
