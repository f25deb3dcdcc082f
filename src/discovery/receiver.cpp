#include "discovery/receiver.h"

#include <sys/socket.h>

#include "common/socket.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";

int TQ_CreateUDPBroadcastSocket(uint16_t port, int *sock, sockaddr_in *address) {
    *address = InternetAddress(address->sin_addr.s_addr, port);
    *sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (*sock == -1) {
        TQ_LOG("socket() error : %m\n");
        return -1;
    }
    const int on = 1;
    if (setsockopt(*sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        TQ_LOG("setsockopt(SOL_SOCKET(%d), SO_REUSEADDR(%d)) error : %m\n", SOL_SOCKET,
               SO_REUSEADDR);
        return -1;
    }
    if (bind(*sock, AsSockaddr(*address), sizeof *address) == -1) {
        TQ_LOG("bind() error : %m\n");
        return -1;
    }
    return 0;
}
