// Replacing an interface's stanza in an interfaces file, in place.
#pragma once

#include "frame/message.h"

namespace config {

enum class StanzaOutcome {
    kWritten,
    kWriteFailed,  // ends the walk; the file keeps its old contents
    kRefused,      // the walk goes on, and the file keeps its old contents
};

// Writes what goes in the place of a stanza to a descriptor; `context` is the caller's.
using StanzaWriter = StanzaOutcome (*)(int out, void *context);

struct StanzaEdit {
    const char *path;
    const char *device;
    StanzaWriter write;
    void *context;
    MessageOrigin origin;  // in whose name failures are reported
    bool reportsCopyBack;  // whether that holds for one that comes when the new text is complete
};

// Replaces each stanza whose interface name begins with `device` (so eth0 also finds eth0:1), from
// its "iface" line to the next line that begins with "iface" or "auto". Other lines stay; a file
// without such a stanza stays as it is. Returns 0 when the new text is on the disk, or -1.
[[nodiscard]] int ReplaceStanza(const StanzaEdit &wanted);

// Writes "iface DEVICE inet dhcp" with a hostname line, or without one when `hostname` is null.
[[nodiscard]] bool WriteDhcpStanza(int out, const char *device, const char *hostname);

// A stanza with fixed addresses, all as dotted text.
struct StaticStanza {
    const char *device;
    const char *method;  // the word after "inet"
    const char *address;
    const char *netmask;
    const char *gateway;
};

// Whether the gateway lies in the address's own subnet; if not, says so in the name of `origin`.
[[nodiscard]] bool HasUsableGateway(const StaticStanza &stanza, MessageOrigin origin);

// Writes the stanza, without a gateway line when `withGateway` is false.
[[nodiscard]] bool WriteStaticStanza(int out, const StaticStanza &stanza, bool withGateway);

}  // namespace config
