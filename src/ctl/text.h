// Texts that others have sent, made fit for a terminal, a script or JSON.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ctl {

// Bytes of a cell: a text of a record, each byte of it escaped.
inline constexpr size_t kCellSize = 64 * 4 + 1;

// Copies a text with every byte that could steer a terminal, break a line or a column, or that is
// no UTF-8, as \xNN.
void MakeHarmless(const char *text, char (&out)[kCellSize]);

// The columns that a harmless text takes on a terminal.
size_t DisplayWidth(const char *text);

// Prints a harmless text in exactly `width` columns, or as it is when `width` is 0. One that is
// wider ends in "~".
void PrintCell(const char *text, size_t width);

// The width of the terminal on a descriptor: 0 when it does not tell, -1 without one.
int TerminalColumns(int descriptor);

// Prints a text as a JSON string; bytes that are no UTF-8 become U+FFFD.
void PrintJsonString(const char *text);

}  // namespace ctl
