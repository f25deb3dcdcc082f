#include "ctl/udp.h"

#include <sys/socket.h>

#include <cstring>

#include "common/socket.h"

namespace ctl {

// A crowd of units answers all at once.
static constexpr int kQueueSize = 4 << 20;

namespace {

// The one control message that these sockets use.
union PacketInfo {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(in_pktinfo))];
};

msghdr Message(sockaddr_in *peer, iovec *data, PacketInfo *info) {
    msghdr message{};
    message.msg_name = peer;
    message.msg_namelen = sizeof *peer;
    message.msg_iov = data;
    message.msg_iovlen = 1;
    message.msg_control = info;
    message.msg_controllen = sizeof *info;
    return message;
}

}  // namespace

UniqueFd OpenUdp(uint16_t port) {
    UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    const sockaddr_in address = InternetAddress(INADDR_ANY, port);
    if (!sock || setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        setsockopt(sock.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1 ||
        setsockopt(sock.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == -1 ||
        bind(sock.get(), AsSockaddr(address), sizeof address) == -1) {
        return UniqueFd();
    }
    if (setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kQueueSize, sizeof kQueueSize) == -1) {
        setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &kQueueSize, sizeof kQueueSize);
    }
    return sock;
}

bool SendUdp(int sock, const Destination &to, const void *data, size_t size) {
    sockaddr_in peer = InternetAddress(htonl(to.address), to.port);
    iovec bytes{const_cast<void *>(data), size};
    PacketInfo control{};
    msghdr message = Message(&peer, &bytes, &control);
    control.header.cmsg_level = IPPROTO_IP;
    control.header.cmsg_type = IP_PKTINFO;
    control.header.cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = to.interface;
    info.ipi_spec_dst.s_addr = htonl(to.source);
    memcpy(CMSG_DATA(&control.header), &info, sizeof info);
    return sendmsg(sock, &message, MSG_NOSIGNAL | MSG_DONTROUTE) != -1;
}

bool ReceiveUdp(int sock, Datagram *datagram) {
    sockaddr_in peer{};
    iovec bytes{datagram->data, sizeof datagram->data - 1};
    PacketInfo control{};
    msghdr message = Message(&peer, &bytes, &control);
    const ssize_t length = recvmsg(sock, &message, 0);
    if (length == -1) {
        return false;
    }
    datagram->size = static_cast<size_t>(length);
    datagram->data[length] = '\0';
    datagram->source = ntohl(peer.sin_addr.s_addr);
    datagram->interface = 0;
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header && header->cmsg_level == IPPROTO_IP && header->cmsg_type == IP_PKTINFO) {
        in_pktinfo info;
        memcpy(&info, CMSG_DATA(header), sizeof info);
        datagram->interface = info.ipi_ifindex;
    }
    return true;
}

}  // namespace ctl
