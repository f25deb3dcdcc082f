// The UDP socket that hears the native protocol's broadcasts, on the server's and the client's
// port.
#pragma once

#include <netinet/in.h>

#include <cstdint>

// Opens a UDP socket that receives on a port, on the address in *address (network order) or, when
// that is 0, on any. Fills the rest of *address. Returns 0 or -1; a descriptor stored in *sock is
// the caller's in both cases.
[[nodiscard]] int TQ_CreateUDPBroadcastSocket(uint16_t port, int *sock, sockaddr_in *address);
