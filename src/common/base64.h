// Base64 with the standard alphabet and padding (RFC 4648, section 4).
#pragma once

#include <cstddef>

// The character of the low 6 bits of `value`.
char COM_Base2Chr(int value);

// The 6-bit value of a character, 64 for one outside the alphabet ("=" included).
int COM_Chr2Base(int character);

// Bytes that COM_Base64Encode writes for `length` bytes, its zero byte included.
constexpr size_t Base64TextSize(size_t length) {
    return (length + 2) / 3 * 4 + 1;
}

// Encodes `length` bytes into `out` (Base64TextSize(length) bytes). Returns the number of
// characters, the zero byte at their end not counted.
int COM_Base64Encode(char *out, const void *in, int length);

// Decodes a zero-terminated text up to its first "=", skipping every character outside the
// alphabet. `out` needs 3 bytes for every 4 characters. Returns the number of bytes written; no
// zero byte follows them.
int COM_Base64Decode(void *out, const char *text);

// The same for a text of at most `textSize` characters and at most `outSize` decoded bytes;
// decoding stops where either ends. `out` may be where the text stands.
int DecodeBase64(void *out, size_t outSize, const char *text, size_t textSize);
