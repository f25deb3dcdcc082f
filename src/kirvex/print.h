// KIRVEX packets as diagnostics, one line per field.
#pragma once

#include "kirvex/packet.h"

// Prints a header.
void KIRVEX_PrintHeader(std::span<const uint8_t, kx::kHeaderSize> packet);

// Prints the header of a reply and the body that its operation has; what the reply is too short for
// is zero.
void KIRVEX_PrintReplyPkt(kx::AnyReply packet);
