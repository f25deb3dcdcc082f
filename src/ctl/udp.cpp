#include "ctl/udp.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "common/socket.h"

namespace ctl {

// A crowd of units answers all at once.
static constexpr int kQueueSize = 4 << 20;

static bool SetOption(int sock, int option, int value) {
    return setsockopt(sock, SOL_SOCKET, option, &value, sizeof value) == 0;
}

UniqueFd OpenUdp(const Link &link, Address source, uint16_t port) {
    UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = InternetAddress(htonl(source), port);
    if (!sock ||
        setsockopt(sock.get(), SOL_SOCKET, SO_BINDTODEVICE, link.name,
                   static_cast<socklen_t>(strlen(link.name))) == -1 ||
        !SetOption(sock.get(), SO_DONTROUTE, 1) || !SetOption(sock.get(), SO_BROADCAST, 1) ||
        !SetOption(sock.get(), SO_REUSEADDR, 1) ||
        bind(sock.get(), AsSockaddr(address), sizeof address) == -1) {
        return UniqueFd();
    }
    if (!SetOption(sock.get(), SO_RCVBUFFORCE, kQueueSize)) {
        SetOption(sock.get(), SO_RCVBUF, kQueueSize);
    }
    return sock;
}

bool SendUdp(int sock, Address address, uint16_t port, const void *data, size_t size) {
    const sockaddr_in peer = InternetAddress(htonl(address), port);
    return sendto(sock, data, size, MSG_NOSIGNAL, AsSockaddr(peer), sizeof peer) != -1;
}

bool ReceiveUdp(int sock, Datagram *datagram) {
    const ssize_t length = read(sock, datagram->data, sizeof datagram->data - 1);
    if (length == -1) {
        return false;
    }
    datagram->size = static_cast<size_t>(length);
    datagram->data[length] = '\0';
    return true;
}

}  // namespace ctl
