// A stub resolver for IPv4 addresses (RFC 1035, type A over UDP), which asks the name servers of
// /etc/resolv.conf itself and keeps nothing between calls.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

inline constexpr int kDnsMaxAddresses = 10;       // entries that every caller's array has
inline constexpr size_t kDnsQuerySize = 1024;     // room for one query
inline constexpr size_t kDnsNameServerSize = 16;  // room for one dotted address
inline constexpr int kDnsDefaultWait = 20;        // seconds for one attempt

// One resolved address. The entry holds one only if `valid` is 1.
struct DnsAddrEntry {
    uint8_t valid;
    uint8_t unused[2];  // stay 0
    uint8_t kind;       // set to 1 together with `valid`
    uint32_t addr;      // network order
};
static_assert(sizeof(DnsAddrEntry) == 8);

// Resolves a host name with at least one dot, or a dotted address (without asking anybody), into
// `entries`, kDnsMaxAddresses zeroed ones; of a mail address the part behind the first "@" counts.
// `timeout` is the wait for each of a server's three attempts in seconds, negative for
// kDnsDefaultWait. Returns 0 on success (all entries may be invalid even so), else -1 or the last
// server's status.
int DNS_GetA(const char *name, DnsAddrEntry *entries, int timeout);

// Reads up to four dotted addresses of name servers from /etc/resolv.conf, each into
// kDnsNameServerSize bytes. Returns how many there are.
int DNS_GetNameServer(char *ns1, char *ns2, char *ns3, char *ns4);

// Asks the one server at the dotted address `server`. Returns as DNS_SendAQuery does, -1 also when
// the socket can't be had.
int DNS_GetAviaNameServer(const char *server, const char *name, DnsAddrEntry *entries, int timeout);

// Asks `server` over a UDP socket, up to three times. Returns 0 found; -1 not found or no reply;
// -2 the last attempt could not send.
int DNS_SendAQuery(int sock, const struct sockaddr_in *server, const char *name,
                   DnsAddrEntry *entries, int timeout);

// Writes a query for records of `type` (1 = A) into `packet`, kDnsQuerySize bytes. Returns its
// length, or -1 with a message when the name is too long for it. Labels aren't checked.
int DNS_CreateOutPacket(const char *name, unsigned char *packet, unsigned char type);

// Takes up to kDnsMaxAddresses addresses from a reply of `len` bytes: a scanner that goes by the
// first data length of 4 and expects one A answer with a compressed name after another. Returns 0
// when it took any (zero ones stay invalid), else -1 and `entries` as they were.
int DNS_ParserAPacket(const unsigned char *reply, int len, DnsAddrEntry *entries);
