#include "support.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/base64.h"
#include "common/buffer.h"
#include "common/socket.h"

std::function<Wait(pollfd *, nfds_t, bool)> gBeforeWait;
jmp_buf gServerExit;

extern "C" {

int LLVMFuzzerInitialize(int *, char ***);
int __real_poll(pollfd *, nfds_t, int);
int __real_ppoll(pollfd *, nfds_t, const timespec *, const sigset_t *);
int __wrap_poll(pollfd *, nfds_t, int);
int __wrap_ppoll(pollfd *, nfds_t, const timespec *, const sigset_t *);
ssize_t __real_recvfrom(int, void *, size_t, int, sockaddr *, socklen_t *);
ssize_t __wrap_recvfrom(int, void *, size_t, int, sockaddr *, socklen_t *);
int __wrap_nanosleep(const timespec *, timespec *);
pid_t __wrap_fork(void);
int __wrap_kill(pid_t, int);
void __wrap_sync(void);

int LLVMFuzzerInitialize(int *, char ***) {
    // The program's messages are still formatted, and go nowhere.
    return freopen("/dev/null", "w", stdout) ? 0 : -1;
}

int __wrap_poll(pollfd *sockets, nfds_t count, int limit) {
    if (gBeforeWait && gBeforeWait(sockets, count, limit < 0) == Wait::kTimeOut) {
        return 0;
    }
    return __real_poll(sockets, count, limit);
}

int __wrap_ppoll(pollfd *sockets, nfds_t count, const timespec *limit, const sigset_t *mask) {
    if (gBeforeWait && (sockets->events & POLLIN) != 0 &&
        gBeforeWait(sockets, count, !limit) == Wait::kTimeOut) {
        return 0;
    }
    return __real_ppoll(sockets, count, limit, mask);
}

ssize_t __wrap_recvfrom(int sock, void *data, size_t size, int flags, sockaddr *sender,
                        socklen_t *senderSize) {
    pollfd waiting{sock, POLLIN, 0};
    if (gBeforeWait && (flags & MSG_DONTWAIT) == 0 &&
        gBeforeWait(&waiting, 1, true) == Wait::kTimeOut) {
        errno = EAGAIN;
        return -1;
    }
    return __real_recvfrom(sock, data, size, flags, sender, senderSize);
}

int __wrap_nanosleep(const timespec *, timespec *) {
    return 0;
}

pid_t __wrap_fork(void) {
    errno = EAGAIN;
    return -1;
}

int __wrap_kill(pid_t, int) {
    return 0;
}

void __wrap_sync(void) {}

}  // extern "C"

void WriteFile(const char *path, const std::string &bytes) {
    const UniqueFd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    Require(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
}

void ReplaceInProc(const char *procPath, const char *path) {
    if (mount(path, procPath, nullptr, MS_BIND, nullptr) != 0) {
        perror(procPath);
        exit(1);
    }
}

void LeaveServer(pollfd *sockets, nfds_t count) {
    for (nfds_t i = 0; i < count; ++i) {
        COM_CloseFd(&sockets[i].fd);
    }
    longjmp(gServerExit, 1);
}

Wait LeaveServerAtRest(pollfd *sockets, nfds_t count) {
    static bool atRest = true;
    atRest = !atRest;
    if (atRest) {
        LeaveServer(sockets, count);
    }
    return Wait::kTimeOut;
}

UniqueFd UdpSocket() {
    UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in local = InternetAddress(htonl(INADDR_LOOPBACK), 0);
    Require(bind(sock.get(), AsSockaddr(local), sizeof local) == 0);
    return sock;
}

void SendDatagram(const UniqueFd &sock, uint16_t port, const std::string &bytes) {
    const sockaddr_in server = InternetAddress(htonl(INADDR_LOOPBACK), port);
    // Twice: the first may only fetch the error of the one before, to a port that was closed.
    for (int i = 0; i < 2; ++i) {
        if (sendto(sock.get(), bytes.data(), bytes.size(), 0, AsSockaddr(server), sizeof server) !=
            -1) {
            return;
        }
    }
}

UniqueFd Connect(uint16_t port) {
    UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in server = InternetAddress(htonl(INADDR_LOOPBACK), port);
    Require(connect(sock.get(), AsSockaddr(server), sizeof server) == 0);
    return sock;
}

void SendAndEnd(const UniqueFd &sock, const std::string &bytes) {
    send(sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    shutdown(sock.get(), SHUT_WR);
}

UniqueFd ConnectAndSend(uint16_t port, const std::string &bytes) {
    UniqueFd sock = Connect(port);
    SendAndEnd(sock, bytes);
    return sock;
}

std::string Drain(int sock) {
    std::string all;
    static char block[65536];
    ssize_t count;
    while ((count = recv(sock, block, sizeof block, MSG_DONTWAIT)) > 0) {
        all.append(block, static_cast<size_t>(count));
    }
    return all;
}

std::string Package(std::string text) {
    if (!text.empty() && text[0] == '!') {
        return text.substr(1);
    }
    text.push_back('\0');
    COM_XorBuffer(text.data(), static_cast<int>(text.size()));
    std::string package(Base64TextSize(text.size()), '\0');
    COM_Base64Encode(package.data(), text.data(), static_cast<int>(text.size()));
    return package;
}

WebServer::WebServer(uint16_t port)
    : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const int on = 1;
    setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in local = InternetAddress(htonl(INADDR_LOOPBACK), port);
    Require(bind(listener_.get(), AsSockaddr(local), sizeof local) == 0);
    Require(listen(listener_.get(), 16) == 0);
}

Wait WebServer::Serve(Input &input) {
    UniqueFd next(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (next) {
        peer_ = static_cast<UniqueFd &&>(next);
    }
    if (!peer_) {
        return Wait::kTimeOut;
    }
    Drain(peer_.get());
    const std::string block = NextText(input);
    if (block == "~") {
        return Wait::kTimeOut;
    }
    if (block.empty()) {
        peer_.reset();
    } else {
        send(peer_.get(), block.data(), block.size(), MSG_NOSIGNAL);
    }
    return Wait::kGoOn;
}
