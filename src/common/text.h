// Small helpers on C texts.
#pragma once

#include <cstddef>

#include "common/owners.h"
#include "frame/message.h"

// Copies a text into a field of `size` bytes, cut to size - 1 characters, always terminated.
void CopyText(char *field, size_t size, const char *text);

template <size_t kSize>
void CopyText(char (&field)[kSize], const char *text) {
    CopyText(field, kSize, text);
}

// The first place where `text` holds `word`, letter case ignored; null when there is none or either
// is null. An empty word is found at the start.
const char *COM_StrNCaseStr(const char *text, const char *word);

// Copies what stands between the first pair of double quotes after `key` (letter case ignored) to
// `out`. A value of `size` characters or more is cut to `size`, with a message, and its terminator
// is the byte behind them: `out` must have size + 1 bytes. Returns a pointer just past the key in
// `text` when a value that is not empty was found, else null; without a pair of quotes `out` is
// left as it was.
const char *COM_GetStrInDoubleQuotes(const char *text, const char *key, char *out, int size);

// The same, reporting in the name of `origin`.
const char *CopyQuotedValue(const char *text, const char *key, char *out, int size,
                            MessageOrigin origin);

// Copies the rest of the line behind `key` (letter case ignored) to `out`, at most size - 1
// characters and a terminator; a longer value is cut with a message. The line ends at the first
// carriage return of the whole rest, or, if there is none, at the first line feed. Returns a
// pointer to the value in `text`; null when the key or the line end is missing.
const char *COM_GetStrBeforeNewLine(const char *text, const char *key, char *out, int size);

// Cuts the next token off a text: passes over leading delimiters, ends the token where the next one
// stands, and leaves *text behind that. Returns the token, or null at the text's end.
char *NextToken(char **text, const char *delimiters);

// The number that a text begins with, as atoi reads it: blanks, a sign, digits; 0 without digits.
// One that an int can't hold gives the int nearest to it, whatever the width of long.
int ParseInt(const char *text);

// The text that printf makes of its arguments, in a block of its own; empty when there is no memory
// for it.
HeapBlock<char> FormatText(const char *format, ...) __attribute__((format(printf, 1, 2)));
