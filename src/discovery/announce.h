// What both sides of a discovery share: the ports, and packages of this unit's own on the wire.
#pragma once

#include <cstdint>
#include <span>

#include "common/owners.h"
#include "discovery/package.h"
#include "unit/unit_info.h"

inline constexpr uint16_t TQ_SERVER_PORT = 6666;
inline constexpr uint16_t TQ_CLIENT_PORT = 6667;

// Builds a package into `out` (discovery::kPackageSize bytes, zero-terminated Base64). `device`
// (null: "eth0") is the interface whose addresses this unit reports; `info` is what a network setup
// carries. Lists are not requested by this program: that type is refused like an unknown one.
// Returns 0; -1 when nothing was built, as always while the interface has no address.
int TQ_CreatePackage(const char *device, int type, char *out, const UnitInfo *info);

// Reads a zero-terminated Base64 text into a zeroed record. Returns the type, or -1; a package with
// too few fields leaves "count/11" in the note.
[[nodiscard]] int TQ_ParserPackage(const char *text, UnitInfo *record);

// Builds a package and broadcasts it on the interface, or on all whose names begin with "eth".
void TQ_SendPackage(const char *device, int type, uint16_t port);

// Broadcasts a network setup package made from `info` on an interface. For a setup tool; the server
// does not send any. Returns the result of COM_SendUDPBroadcast, or -1 when there was no package.
int TQ_SendNetworkSetupPkg(const char *device, uint16_t port, const UnitInfo *info);

namespace discovery {

// TQ_SendPackage through a packet socket that is opened when *packetSocket is empty and left open.
// `lent` is a UDP socket that serves for interface requests, or -1.
void SendPackageThrough(UniqueFd *packetSocket, int lent, const char *device, int type,
                        uint16_t port);

// TQ_ParserPackage on what has been received, with its size; the bytes are used up.
[[nodiscard]] int ParseReceived(std::span<char> package, UnitInfo *record);

}  // namespace discovery
