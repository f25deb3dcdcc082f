// IPv4 addresses written as text.
#pragma once

#include <netinet/in.h>

#include <cstdint>

// Reads a dotted address as inet_aton does, but refuses one that is followed by more than blanks:
// inet_aton ignores what stands there, and in a file that scripts read it would be a command.
bool ParseDottedAddress(const char *text, in_addr *address);

// Writes an address as dotted text of at most INET_ADDRSTRLEN bytes, terminator included.
void WriteDottedAddress(in_addr address, char *out);

// Reads "address", "address/netmask" or "address/prefix length" into values of network order. A
// prefix length n gives the mask whose n low-order bits are set in the machine's own byte order.
// Returns 0, or -1 when the address is not valid; a mask that is not valid leaves all ones.
int COM_ConvertNetworkAddr(const char *text, uint32_t *address, uint32_t *mask);
