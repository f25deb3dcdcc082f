// The peers of these tests: programs of the system's, and a server that does what those never
// would.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>

#include <fstream>
#include <functional>
#include <thread>

#include "common/heap.h"
#include "common/socket.h"
#include "common/unique_fd.h"

using std::string_literals::operator""s;

inline bool Holds(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

inline void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
}

// What a call returned, left in its buffer (as much as it says), printed, and took.
struct Outcome {
    int result;
    bool stored;
    std::string bytes, messages;
    double seconds;
};

inline Outcome Observe(const std::function<int(char **)> &call) {
    char *buffer = nullptr;
    testing::internal::CaptureStdout();
    const auto start = std::chrono::steady_clock::now();
    const int result = call(&buffer);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    const HeapBlock<char> owner(buffer);
    EXPECT_TRUE(!buffer || result < 1 || buffer[result - 1] == '\0');
    return {result, buffer != nullptr,
            std::string(buffer ? buffer : "", result > 0 ? result - 1 : 0),
            testing::internal::GetCapturedStdout(), time.count()};
}

// The outcome of a call in which `r` stands for the address of its buffer.
#define OBSERVE(expression) Observe([&]([[maybe_unused]] char **r) { return (expression); })

// A socket at a port that the system picks.
struct BoundSocket {
    explicit BoundSocket(int type, in_addr_t host = INADDR_LOOPBACK)
        : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)), address(InternetAddress(htonl(host), 0)) {
        socklen_t size = sizeof address;
        bind(fd.get(), AsSockaddr(address), size);
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size);
    }
    UniqueFd fd;
    sockaddr_in address;
};

inline bool Readable(int sock, int milliseconds) {
    pollfd wanted{sock, POLLIN, 0};
    return poll(&wanted, 1, milliseconds) == 1;
}

// Starts a server program, which goes with the private host. Returns whether it serves its port.
inline bool StartServer(std::vector<const char *> arguments, uint16_t port) {
    arguments.push_back(nullptr);
    char **argv = const_cast<char **>(arguments.data());
    pid_t pid;
    posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ);
    const sockaddr_in address = InternetAddress(htonl(INADDR_LOOPBACK), port);
    for (int i = 0; i < 500; ++i, usleep(20000)) {
        const UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(sock.get(), AsSockaddr(address), sizeof address) == 0) {
            return true;
        }
    }
    return false;
}

inline bool HaveNameServer() {
    static const bool serves = StartServer(
        {"/usr/sbin/dnsmasq", "-d", "-C", "/dev/null", "-u", "root", "-R", "-h", "-x", "", "-z",
         "-a", "127.0.0.1", "--host-record=one.test,10.0.0.1", "--cname=alias.test,one.test",
         "--host-record=nvr.test,127.0.0.77", "--host-record=nvr.test,127.0.0.1", "--local=/test/"},
        53);
    return serves;
}

// Accepts connections in turn, collects what each sends until it pauses, and runs a script on it.
class ScriptedServer {
  public:
    explicit ScriptedServer(std::function<void(int peer)> script, int connections = 1) {
        listen(socket_.fd.get(), 8);
        thread_ = std::thread([=, this] {
            for (int i = 0; i < connections && Readable(socket_.fd.get(), 10000); ++i) {
                const UniqueFd peer(accept(socket_.fd.get(), nullptr, nullptr));
                std::string &request = requests_.emplace_back();
                char block[65536];
                for (ssize_t count = 1; count > 0 && Readable(peer.get(), 150);) {
                    count = read(peer.get(), block, sizeof block);
                    request.append(block, count > 0 ? count : 0);
                }
                script(peer.get());
            }
        });
    }
    ~ScriptedServer() { Requests(); }
    std::string Url(const std::string &path, const std::string &host = "127.0.0.1") {
        return host + ":" + std::to_string(ntohs(socket_.address.sin_port)) + path;
    }
    // What was asked, when all connections are over.
    const std::vector<std::string> &Requests() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return requests_;
    }

  private:
    BoundSocket socket_{SOCK_STREAM, INADDR_ANY};
    std::vector<std::string> requests_;
    std::thread thread_;
};

inline void SendBytes(int peer, const std::string &bytes) {
    send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// Keeps a connection open until the peer has closed it.
inline void HoldOpen(int peer) {
    for (char byte; read(peer, &byte, 1) > 0;) {
    }
}
