// Replacing an interface's stanza in an interfaces file, in place.
#pragma once

#include <cstdio>

#include "frame/message.h"

enum class StanzaOutcome {
    kWritten,
    kWriteFailed,  // ends the walk; the file keeps its old contents
    kRefused,      // the walk goes on, and the file keeps its old contents
};

// Writes what goes in the place of a stanza; `context` is the caller's.
using StanzaWriter = StanzaOutcome (*)(FILE *out, void *context);

// Replaces each stanza whose interface name begins with `device` (so eth0 also finds eth0:1), from
// its "iface" line to the next line that begins with "iface" or "auto". Other lines stay; a file
// without such a stanza stays as it is. Returns 0, or -1 with the messages in the name of `origin`.
int ReplaceStanza(const char *path, const char *device, StanzaWriter writer, void *context,
                  const MessageOrigin &origin);

// Writes "iface DEVICE inet dhcp" with a hostname line, or without one when `hostname` is null.
bool WriteDhcpStanza(FILE *out, const char *device, const char *hostname);

// A stanza with fixed addresses, all as dotted text.
struct StaticStanza {
    const char *device;
    const char *method;  // the word after "inet"
    const char *address;
    const char *netmask;
    const char *gateway;
};

// Whether the gateway lies in the address's own subnet; if not, says so in the name of `origin`.
bool HasUsableGateway(const StaticStanza &stanza, const MessageOrigin &origin);

// Writes the stanza, without a gateway line when `withGateway` is false.
bool WriteStaticStanza(FILE *out, const StaticStanza &stanza, bool withGateway);
