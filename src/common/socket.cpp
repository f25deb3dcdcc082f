#include "common/socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "common/clock.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr int64_t kMicroseconds = 1000000;  // of a second

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
    const int64_t start = MonotonicMicroseconds();
    const int64_t limit =
        remaining ? int64_t{remaining->tv_sec} * kMicroseconds + remaining->tv_usec : 0;
    int64_t left = limit;
    int ready;
    do {
        const timespec wait{static_cast<time_t>(left / kMicroseconds),
                            static_cast<long>(left % kMicroseconds) * 1000};
        ready = ppoll(&wanted, 1, remaining ? &wait : nullptr, nullptr);
        const int64_t used = MonotonicMicroseconds() - start;
        left = ready == 0 || used >= limit ? 0 : limit - used;
    } while (ready == -1 && errno == EINTR);
    if (remaining) {
        remaining->tv_sec = static_cast<time_t>(left / kMicroseconds);
        remaining->tv_usec = static_cast<suseconds_t>(left % kMicroseconds);
    }
    return ready;
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
