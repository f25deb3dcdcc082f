// What the clients and servers share about sockets.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

// Sets the send and then the receive time-out of a socket. Returns 0; -1 with a message on failure.
int COM_SetSocketTimeout(int sock, int seconds);

// Waits for poll `events` on a descriptor, at most *remaining, from which the time used is taken
// off; a signal ends no wait. Returns 1 when ready, 0 when the time is over, -1 with errno set.
int WaitForSocket(int sock, short events, timeval *remaining);

// Binds a socket to a port that a process killed a moment ago may still have: until all its sockets
// are closed, which takes the kernel milliseconds, its successor waits, at most 0.2 seconds.
// Returns false with errno set on failure.
[[nodiscard]] bool BindWhenFree(int sock, const sockaddr_in &address);

// Takes SO_REUSEADDR back from a bound socket: a local user who binds the port at one address of
// this unit's would get all that is sent to that address.
void KeepPortToOneself(int sock);

// The address of an IPv4 endpoint; `address` in network order, `port` in the machine's.
sockaddr_in InternetAddress(in_addr_t address, uint16_t port);

// The same as what bind, connect and sendto take.
inline const sockaddr *AsSockaddr(const sockaddr_in &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}
