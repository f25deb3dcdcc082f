// Texts of any length, made as printf makes them.
#pragma once

#include "common/heap.h"

// The text in a block of its own; empty when there is no memory for it.
HeapBlock<char> FormatText(const char *format, ...) __attribute__((format(printf, 1, 2)));
