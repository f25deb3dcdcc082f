#include "common/socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include "common/clock.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";

int COM_SetSocketTimeout(int sock, int seconds) {
    const timeval limit{seconds, 0};
    if (setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == -1) {
        TQ_LOG("setsockopt(%d, SO_SNDTIMEO, %d sec) failed - %m\n", sock, seconds);
        return -1;
    }
    if (setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == -1) {
        TQ_LOG("setsockopt(%d, SO_RCVTIMEO, %d sec) failed - %m\n", sock, seconds);
        return -1;
    }
    return 0;
}

int WaitForSocket(int sock, short events, timeval *remaining) {
    pollfd wanted{sock, events, 0};
    timeval end = MonotonicTime();
    timeradd(&end, remaining, &end);
    int ready;
    do {
        const timespec wait{remaining->tv_sec, remaining->tv_usec * 1000};
        ready = ppoll(&wanted, 1, &wait, nullptr);
        const timeval now = MonotonicTime();
        if (ready != 0 && timercmp(&now, &end, <)) {
            timersub(&end, &now, remaining);
        } else {
            *remaining = {};
        }
    } while (ready == -1 && errno == EINTR);
    return ready;
}

bool BindWhenFree(int sock, const sockaddr_in &address) {
    static constexpr timespec kPause{0, 10000000};
    static constexpr int kTries = 20;
    int tries = 1;
    while (bind(sock, AsSockaddr(address), sizeof address) == -1) {
        if (errno != EADDRINUSE || tries++ == kTries) {
            return false;
        }
        nanosleep(&kPause, nullptr);
    }
    return true;
}

void KeepPortToOneself(int sock) {
    const int off = 0;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &off, sizeof off);
}

sockaddr_in InternetAddress(in_addr_t address, uint16_t port) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_port = htons(port);
    endpoint.sin_addr.s_addr = address;
    return endpoint;
}
