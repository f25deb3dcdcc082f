// The KIRVEX operation that changes the unit's addressing.
#pragma once

#include <netinet/in.h>

#include <cstdint>

// Writes the settings that a request carries, answers `sender`, and then restarts the network.
// `request` has kx::kReceiveSize bytes. Returns 0 when all of that was done; -1 otherwise, whatever
// the reply says.
int KIRVEX_Reply_SetBasicInfo(const char *device, int sock, const sockaddr_in &sender,
                              const uint8_t *request);

// Rewrites the stanza of an interface in "/mtd1/interfaces" and, for fixed addresses, the first
// name server of "/etc/resolv.conf", from a settings block (kx::kSettingsSize bytes). Returns
// 0; -1 on failure, also when the resolver file has no name server to replace, and the stanza then
// stays as it was.
int KIRVEX_NetWorkSetup(const char *device, const uint8_t *settings);
