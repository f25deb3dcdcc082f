#include "net/dns.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "common/owners.h"
#include "common/socket.h"
#include "common/text.h"
#include "common/text_file.h"
#include "frame/message.h"

static constexpr char kSource[] = "DNS";
static constexpr char kResolverFile[] = "/etc/resolv.conf";
static constexpr char kNameServerKey[] = "nameserver";
static constexpr int kMaxNameServers = 4;
static constexpr int kLineSize = 80;
static constexpr uint16_t kDnsPort = 53;
static constexpr int kAttempts = 3;

// Header: id, flags "recursion desired", one question, no records.
static constexpr uint8_t kQueryHeader[] = {0xA9, 0xFA, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0};
static constexpr size_t kQuestionTail = 5;  // root label, type and class
static constexpr unsigned char kTypeA = 1;
static constexpr unsigned char kClassInternet = 1;

static constexpr size_t kReplySize = 1024;  // the last byte is never received into
static constexpr int kShortestReply = 18;
static constexpr int kAnswerCountAt = 7;  // the low byte of it
static constexpr int kFirstAddressAt = 17;
static constexpr int kAnswerStride = 16;  // a compressed name, type, class, TTL, length and address

// What the first four bytes of a reply read as, in the machine's own order, when there is no use in
// asking again: to a little-endian machine it is "no such name" to our query; to a big-endian one
// no real reply looks like this, and it asks its three times.
static constexpr uint32_t kFinalRefusal = 0x8381FAA9;

// What a name or mail address asks for: its domain.
static const char *DomainOf(const char *name) {
    const char *at = strchr(name, '@');
    return at ? at + 1 : name;
}

int DNS_GetA(const char *name, DnsAddrEntry *entries, int timeout) {
    if (!name) {
        TQ_LOG("pDomainName is NULL!\n");
        return -1;
    }
    if (!strchr(name, '.')) {
        TQ_LOG("invalid pDomainName [%s]\n", name);
        return -1;
    }
    entries[0].addr = inet_addr(DomainOf(name));
    if (entries[0].addr != INADDR_NONE) {
        entries[0].valid = 1;
        entries[0].kind = 1;
        return 0;
    }
    char servers[kMaxNameServers][kDnsNameServerSize] = {};
    const int count = DNS_GetNameServer(servers[0], servers[1], servers[2], servers[3]);
    if (count == 0) {
        TQ_LOG("no nameserver found\n");
        return -1;
    }
    int status = -1;
    for (int i = 0; i < count && status != 0; ++i) {
        status = DNS_GetAviaNameServer(servers[i], name, entries, timeout);
    }
    return status;
}

int DNS_GetNameServer(char *ns1, char *ns2, char *ns3, char *ns4) {
    char *const slots[kMaxNameServers] = {ns1, ns2, ns3, ns4};
    TextFile file(kResolverFile);
    if (!file) {
        TQ_LOG("fopen(%s) error : %m\n", kResolverFile);
        return 0;
    }
    char line[kLineSize];
    int count = 0;
    while (count < kMaxNameServers && file.ReadLine(line)) {
        if (strncmp(line, kNameServerKey, strlen(kNameServerKey)) != 0) {
            continue;
        }
        // A tab is not a delimiter: a line with one names no server.
        static constexpr char kDelimiters[] = " \r\n";
        char *rest = line;
        NextToken(&rest, kDelimiters);
        if (const char *address = NextToken(&rest, kDelimiters)) {
            CopyText(slots[count++], kDnsNameServerSize, address);
        }
    }
    return count;
}

int DNS_GetAviaNameServer(const char *server, const char *name, DnsAddrEntry *entries,
                          int timeout) {
    const in_addr_t address = inet_addr(server);
    if (address == INADDR_NONE) {
        TQ_LOG("inet_addr(%s) error : %m\n", server);
        return -1;
    }
    const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG("socket() error : %m\n");
        return -1;
    }
    const sockaddr_in local = InternetAddress(htonl(INADDR_ANY), 0);
    if (bind(sock.get(), AsSockaddr(local), sizeof local) == -1) {
        TQ_LOG("bind() error : %m\n");
        return -1;
    }
    const sockaddr_in peer = InternetAddress(address, kDnsPort);
    const int status = DNS_SendAQuery(sock.get(), &peer, name, entries, timeout);
    if (status != 0) {
        TQ_LOG("A record not found!\n");
    }
    return status;
}

int DNS_SendAQuery(int sock, const struct sockaddr_in *server, const char *name,
                   DnsAddrEntry *entries, int timeout) {
    uint8_t query[kDnsQuerySize] = {};
    const int length = DNS_CreateOutPacket(name, query, kTypeA);
    if (length < 0) {
        return -1;
    }
    int status = -1;
    for (int attempt = 0; attempt < kAttempts && status != 0; ++attempt) {
        status = -1;
        timeval remaining{timeout >= 0 ? timeout : kDnsDefaultWait, 0};
        uint8_t reply[kReplySize] = {};
        if (WaitForSocket(sock, POLLOUT, &remaining) <= 0) {
            TQ_LOG("select(writeset:%d) timeout! : %m\n", sock);
            status = -2;
            continue;
        }
        const int sent = static_cast<int>(sendto(sock, query, static_cast<size_t>(length), 0,
                                                 AsSockaddr(*server), sizeof *server));
        if (sent < length) {
            TQ_LOG("sendto() error : %d/%d - %m\n", sent, length);
            status = -2;
            continue;
        }
        const int ready = WaitForSocket(sock, POLLIN, &remaining);
        if (ready <= 0) {
            if (ready == 0) {
                TQ_LOG("[%d] select() timeout\n", attempt);
            } else {
                TQ_LOG("[%d] select() error : %m\n", attempt);
            }
            continue;
        }
        // A datagram with a bad checksum wakes the wait and is gone afterwards: don't block on it.
        const int received = static_cast<int>(recv(sock, reply, sizeof reply - 1, MSG_DONTWAIT));
        uint32_t start;
        memcpy(&start, reply, sizeof start);
        if (start == kFinalRefusal) {
            return -1;
        }
        status = DNS_ParserAPacket(reply, received, entries);
    }
    return status;
}

int DNS_CreateOutPacket(const char *name, unsigned char *packet, unsigned char type) {
    const char *domain = DomainOf(name);
    const size_t nameLength = strlen(domain);
    const size_t length = sizeof kQueryHeader + nameLength + 1 + kQuestionTail;
    if (length > kDnsQuerySize) {
        TQ_LOG("buffer overflow : (len, limit) = (%d, %d)\n", static_cast<int>(length),
               static_cast<int>(kDnsQuerySize));
        return -1;
    }
    memcpy(packet, kQueryHeader, sizeof kQueryHeader);
    uint8_t *out = packet + sizeof kQueryHeader;
    *out = 0;  // all there is of an empty name
    size_t start = 0;
    for (size_t i = 0; i < nameLength; ++i) {
        const bool last = i + 1 == nameLength;
        if (domain[i] == '.' || last) {
            // A dot at the very end belongs to its label; two in a row enclose an empty one.
            const size_t count = i - start + (last ? 1 : 0);
            *out++ = static_cast<uint8_t>(count);
            memcpy(out, domain + start, count);
            out += count;
            start = i + 1;
        }
    }
    const uint8_t tail[kQuestionTail] = {0, 0, type, 0, kClassInternet};
    memcpy(packet + length - kQuestionTail, tail, sizeof tail);
    return static_cast<int>(length);
}

int DNS_ParserAPacket(const unsigned char *reply, int len, DnsAddrEntry *entries) {
    if (len < kShortestReply) {
        return -1;
    }
    const int answers = std::min<int>(reply[kAnswerCountAt], kDnsMaxAddresses);
    if (answers == 0) {
        return -1;
    }
    int position = kFirstAddressAt;
    while (position < len && !(reply[position - 2] == 0 && reply[position - 1] == 4)) {
        ++position;
    }
    if (position == len) {
        return -1;
    }
    DnsAddrEntry found[kDnsMaxAddresses] = {};
    for (int k = 0; k < answers; ++k) {
        // Of an address that the reply's end cuts off, the missing bytes count as 0.
        const size_t rest = static_cast<size_t>(len - position);
        memcpy(&found[k].addr, reply + position, std::min(rest, sizeof found[k].addr));
        if (found[k].addr != 0) {
            found[k].valid = 1;
            found[k].kind = 1;
            if (position + kAnswerStride >= len) {
                break;
            }
            position += kAnswerStride;
        }
    }
    memcpy(entries, found, static_cast<size_t>(answers) * sizeof *entries);
    return 0;
}
