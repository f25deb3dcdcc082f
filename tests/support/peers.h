// Peers of the tests: sockets, and a server that does what no real one would.
#pragma once

#include <arpa/inet.h>
#include <poll.h>

#include <functional>
#include <thread>
#include <vector>

#include "common/owners.h"
#include "common/socket.h"
#include "support/files.h"

using std::string_literals::operator""s;

inline bool Holds(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// A socket at a port, by default at one that the system picks.
struct BoundSocket {
    explicit BoundSocket(int type, in_addr_t host = INADDR_LOOPBACK, uint16_t port = 0)
        : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)), address(InternetAddress(htonl(host), port)) {
        const int reuse = port != 0;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd.get(), AsSockaddr(address), size), 0);
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size);
    }
    UniqueFd fd;
    sockaddr_in address;
};

inline void SendBytes(int peer, const std::string &bytes) {
    send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// Keeps a connection open until the peer has closed it.
inline void HoldOpen(int peer) {
    for (char byte; read(peer, &byte, 1) > 0;) {
    }
}

// Accepts connections in turn, collects what each sends (one GET, else until it pauses), and runs a
// script on it.
class ScriptedServer {
  public:
    explicit ScriptedServer(std::function<void(int peer)> script, uint16_t port = 0)
        : socket_(SOCK_STREAM, INADDR_ANY, port) {
        listen(socket_.fd.get(), 8);
        thread_ = std::thread([=, this] {
            for (int sock; (sock = accept(socket_.fd.get(), nullptr, nullptr)) >= 0;) {
                const UniqueFd peer(sock);
                std::string &request = requests_.emplace_back();
                char block[65536];
                pollfd wanted{sock, POLLIN, 0};
                while (!(request.starts_with("GET ") && request.ends_with("\r\n\r\n")) &&
                       poll(&wanted, 1, 150) == 1) {
                    const ssize_t count = read(sock, block, sizeof block);
                    if (count <= 0) {
                        break;
                    }
                    request.append(block, count);
                }
                script(sock);
            }
        });
    }
    ~ScriptedServer() { Requests(); }
    std::string Url(const std::string &path, const std::string &host = "127.0.0.1") {
        return host + ":" + std::to_string(ntohs(socket_.address.sin_port)) + path;
    }
    // Ends the server; what it was asked.
    const std::vector<std::string> &Requests() {
        if (thread_.joinable()) {
            shutdown(socket_.fd.get(), SHUT_RDWR);
            thread_.join();
        }
        return requests_;
    }

  private:
    BoundSocket socket_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

// A check that mostly waits: it runs beside all other tests, and only when all are wanted.
struct Beside : testing::Environment {
    explicit Beside(void (*wait)()) : check(wait) {}
    void SetUp() override {
        thread = std::thread(testing::GTEST_FLAG(filter) == "*" ? check : [] {});
    }
    void TearDown() override { thread.join(); }
    void (*check)();
    std::thread thread;
};
