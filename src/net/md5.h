// The MD5 message digest (RFC 1321).
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kMd5DigestSize = 16;
inline constexpr size_t kMd5HexLength = 2 * kMd5DigestSize;

// The digest of `length` bytes.
void COM_MakeMD5(uint8_t (&digest)[kMd5DigestSize], const void *bytes, size_t length);

// The digest of a zero-terminated text as kMd5HexLength lower-case hexadecimal characters. No
// terminator follows them: `out` is zeroed beforehand where a C text is wanted.
void COM_MakeStrMD5(char *out, const char *text);
