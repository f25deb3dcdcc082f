// The peers that the tests of this room talk to: programs of the system's, and a server that does
// what those never would.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/heap.h"
#include "common/socket.h"
#include "common/unique_fd.h"

inline void Sleep(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

inline double Seconds(const std::function<void()> &work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::trunc) << text;
}

// A copy in a heap block of exactly its size, so that a read past it is noticed.
inline HeapBlock<char> Exactly(const std::string &bytes) {
    HeapBlock<char> block(static_cast<char *>(malloc(bytes.size())));
    bytes.copy(block.get(), bytes.size());
    return block;
}

// A socket bound to a port of 127.0.0.1 that the system picks.
struct BoundSocket {
    explicit BoundSocket(int type) : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const sockaddr_in any = InternetAddress(htonl(INADDR_LOOPBACK), 0);
        bind(fd.get(), AsSockaddr(any), sizeof any);
        socklen_t size = sizeof address;
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size);
    }
    UniqueFd fd;
    sockaddr_in address{};
};

// A program that runs until the object goes.
class Daemon {
  public:
    explicit Daemon(std::vector<const char *> arguments) {
        arguments.push_back(nullptr);
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            execv(arguments[0], const_cast<char **>(arguments.data()));
            _exit(127);
        }
    }
    ~Daemon() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

  private:
    pid_t pid_;
};

// Waits until somebody accepts connections at 127.0.0.1.
inline bool WaitForPort(uint16_t port) {
    const sockaddr_in address = InternetAddress(htonl(INADDR_LOOPBACK), port);
    for (int i = 0; i < 500; ++i, Sleep(20)) {
        const UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(sock.get(), AsSockaddr(address), sizeof address) == 0) {
            return true;
        }
    }
    return false;
}

// Accepts `connections` in turn, collects what each sends until it pauses, and leaves the answer to
// a script.
class ScriptedServer {
  public:
    using Script = std::function<void(int peer)>;
    explicit ScriptedServer(Script script, int connections = 1)
        : script_(std::move(script)), connections_(connections) {
        listen(socket_.fd.get(), 8);
        thread_ = std::thread([this] { Serve(); });
    }
    ~ScriptedServer() { Requests(); }

    int port() const { return ntohs(socket_.address.sin_port); }
    std::string Url(const std::string &path) const {
        return "127.0.0.1:" + std::to_string(port()) + path;
    }
    // What was asked, when all connections are over.
    const std::vector<std::string> &Requests() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return requests_;
    }

  private:
    static bool Readable(int sock, int milliseconds) {
        pollfd wanted{sock, POLLIN, 0};
        return poll(&wanted, 1, milliseconds) == 1;
    }
    void Serve() {
        for (int i = 0; i < connections_ && Readable(socket_.fd.get(), 10000); ++i) {
            const UniqueFd peer(accept(socket_.fd.get(), nullptr, nullptr));
            std::string request;
            char block[65536];
            ssize_t count;
            while (Readable(peer.get(), 150) &&
                   (count = read(peer.get(), block, sizeof block)) > 0) {
                request.append(block, count);
            }
            requests_.push_back(request);
            script_(peer.get());
        }
    }

    BoundSocket socket_{SOCK_STREAM};
    Script script_;
    int connections_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

inline void SendBytes(int peer, const std::string &bytes) {
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t sent = send(peer, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;
        }
        at += sent;
    }
}

// Keeps a connection open until the peer has closed it.
inline void HoldOpen(int peer) {
    char byte;
    while (read(peer, &byte, 1) > 0) {
    }
}
