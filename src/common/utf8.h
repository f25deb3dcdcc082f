// Texts of strangers: what is in them, and what a terminal must not see.
#pragma once

#include <cstddef>
#include <cstdint>

// What stands for a byte that begins no code point.
inline constexpr uint32_t kNoCodePoint = 0xFFFD;

// The code point that a zero-terminated text begins with, and its length in bytes: 1 for
// kNoCodePoint, unless the text holds that very character.
uint32_t ReadCodePoint(const char *text, size_t *length);

// Replaces by "?" each byte that a terminal could take for a command: of control characters other
// than tab and line feed, and what is no UTF-8.
void MaskControls(char *text);
