// The KIRVEX operations that only read: the device search and the query of option functions.
#pragma once

#include <netinet/in.h>

#include "kirvex/packet.h"

// Sends the identity and the network facts of an interface to `sender`. Returns 0, or -1 when the
// reply could not be sent.
int KIRVEX_Reply_DevSearch(const char *device, int sock, const sockaddr_in &sender,
                           kx::Request request);

// Sends the reply that names no optional function. Returns 0, or -1 when it could not be sent.
int KIRVEX_Reply_QuerySupportedOptFns(const char *device, int sock, const sockaddr_in &sender,
                                      kx::Request request);

// 1 when a line of "/mtd1/interfaces" holds both the interface name and "dhcp", letter case
// ignored; else -1, also when the file can't be read.
int KIRVEX_GetDHCPStatus(const char *device);
