#include "kirvex/endpoint.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "common/owners.h"
#include "common/socket.h"
#include "unit/net_info.h"

namespace kx {

static bool SetOption(int sock, int option, const void *value, size_t size, MessageOrigin origin) {
    if (setsockopt(sock, SOL_SOCKET, option, value, static_cast<socklen_t>(size)) == -1) {
        TQ_LOG_FOR(origin, "setsockopt error: %m\n");
        return false;
    }
    return true;
}

bool OpenSocket(int *sock, const char *device, bool broadcast, MessageOrigin origin) {
    *sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (*sock < 0) {
        TQ_LOG_FOR(origin, "socket error: %m\n");
        return false;
    }
    const int on = 1;
    return SetOption(*sock, SO_BINDTODEVICE, device, strlen(device), origin) &&
           SetOption(*sock, SO_REUSEADDR, &on, sizeof on, origin) &&
           (!broadcast || SetOption(*sock, SO_BROADCAST, &on, sizeof on, origin));
}

bool IsBroadcast(const char *device, const sockaddr_in &peer) {
    const UniqueFd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    setsockopt(probe.get(), SOL_SOCKET, SO_BINDTODEVICE, device,
               static_cast<socklen_t>(strlen(device)));
    // The kernel knows the broadcast addresses of all subnets, and this socket may not use any.
    return connect(probe.get(), AsSockaddr(peer), sizeof peer) == -1 && errno == EACCES;
}

void WidenSendBuffer(int sock) {
    static constexpr int kSize = 2 << 20;  // the kernel takes it twice
    if (setsockopt(sock, SOL_SOCKET, SO_SNDBUFFORCE, &kSize, sizeof kSize) == -1) {
        setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &kSize, sizeof kSize);
    }
}

int SendPacket(int sock, const sockaddr_in &peer, std::span<const uint8_t> packet,
               MessageOrigin origin) {
    if (sendto(sock, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT, AsSockaddr(peer),
               sizeof peer) == -1) {
        TQ_LOG_FOR(origin, "sendto error: %m\n");
        return -1;
    }
    return 0;
}

Reply StartReply(const char *device, int sock, Request request, size_t size) {
    Reply reply{};
    reply.size = size;
    WriteHeader(std::span(reply.packet).first(size), kReplyIdentifier,
                static_cast<uint16_t>(ReadInteger(request, kOperation)), kSuccess);
    reply.Set(kSequenceNumber, ReadInteger(request, kSequenceNumber));
    unit::FactSource facts(sock);
    facts.Mac(NETINFO_MAC_RAW, device, reply.packet + kMac.offset);
    facts.Address(NETINFO_IP_RAW, device, reply.packet + kAddress.offset);
    return reply;
}

}  // namespace kx
