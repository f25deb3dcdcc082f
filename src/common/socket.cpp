#include "common/socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "common/clock.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";

int COM_SetSocketTimeout(int sock, int seconds) {
    const timeval limit{seconds, 0};
    if (setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == -1) {
        TQ_LOG("setsockopt(%d, SO_SNDTIMEO, %d sec) failed - %s\n", sock, seconds, strerror(errno));
        return -1;
    }
    if (setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == -1) {
        TQ_LOG("setsockopt(%d, SO_RCVTIMEO, %d sec) failed - %s\n", sock, seconds, strerror(errno));
        return -1;
    }
    return 0;
}

int WaitForSocket(int sock, short events, timeval *remaining) {
    pollfd wanted{sock, events, 0};
    if (!remaining) {
        return ppoll(&wanted, 1, nullptr, nullptr);
    }
    const int64_t limit = int64_t{remaining->tv_sec} * 1000000 + remaining->tv_usec;
    const timespec wait{remaining->tv_sec, remaining->tv_usec * 1000};
    const int64_t start = MonotonicMicroseconds();
    const int ready = ppoll(&wanted, 1, &wait, nullptr);
    const int error = errno;
    const int64_t left = ready == 0 ? 0 : limit - (MonotonicMicroseconds() - start);
    remaining->tv_sec = left > 0 ? static_cast<time_t>(left / 1000000) : 0;
    remaining->tv_usec = left > 0 ? static_cast<suseconds_t>(left % 1000000) : 0;
    errno = error;
    return ready;
}

sockaddr_in InternetAddress(in_addr_t address, uint16_t port) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_port = htons(port);
    endpoint.sin_addr.s_addr = address;
    return endpoint;
}
