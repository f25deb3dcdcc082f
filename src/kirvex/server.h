// The KIRVEX server: one socket, one datagram at a time.
#pragma once

#include <netinet/in.h>

#include "kirvex/packet.h"

// Serves KIRVEX requests for ever. A null `pidFile` means "/var/run/TQ.pid", a null `device`
// "eth0". Returns -1 when there is no socket to serve on.
int TQ_Server_KIRVEX(const char *pidFile, const char *device);

// Opens the socket of an interface and binds it to port 62976 of every address; `port` does not
// count. Returns 0; -1 with a message on failure, and *sock may then still be open.
int KIRVEX_CreateUDPRecvAnyAddrSocket(const char *device, int port, int *sock,
                                      sockaddr_in *address);

// Checks a request and has it answered. Returns the result of the operation, or -1 when the request
// was ignored.
int KIRVEX_ParserPkt(const char *device, int sock, const sockaddr_in &sender, kx::Request packet);
