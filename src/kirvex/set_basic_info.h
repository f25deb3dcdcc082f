// The KIRVEX operation that changes the unit's addressing.
#pragma once

#include <netinet/in.h>

#include "kirvex/packet.h"

// Writes the settings that a request carries, answers `sender`, and then restarts the network.
// Returns 0 when all of that was done; -1 otherwise, whatever the reply says.
int KIRVEX_Reply_SetBasicInfo(const char *device, int sock, const sockaddr_in &sender,
                              kx::Request request);

// Rewrites the stanza of an interface in "/mtd1/interfaces" and, for fixed addresses, the first
// name server of "/etc/resolv.conf", from a settings block. Returns 0; -1 on failure, also when the
// resolver file has no name server to replace, and the stanza then stays as it was.
int KIRVEX_NetWorkSetup(const char *device, kx::SettingsBlock settings);
