// Peers of the tests: sockets, a server that does what no real one would, and a name server; and
// what came of a call to them.
#pragma once

#include <arpa/inet.h>
#include <poll.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "common/owners.h"
#include "common/socket.h"
#include "support/files.h"

using std::string_literals::operator""s;

// A socket at a port, by default at one that the system picks.
struct BoundSocket {
    explicit BoundSocket(int type, in_addr_t host = INADDR_LOOPBACK, uint16_t port = 0)
        : fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)), address(InternetAddress(htonl(host), port)) {
        const int reuse = port != 0;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
        // The kernel may close a killed server's sockets some time after the process has gone.
        for (int i = 0; i < 50 && !BindWhenFree(fd.get(), address); ++i) {
        }
        socklen_t size = sizeof address;
        EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
        EXPECT_NE(address.sin_port, 0) << strerror(errno);
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
    explicit ScriptedServer(std::function<void(int peer)> script, uint16_t port = 0,
                            in_addr_t host = INADDR_ANY)
        : socket_(SOCK_STREAM, host, port) {
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

// What a call returned, left in its buffer, printed, and took.
struct Outcome {
    int result;
    std::string bytes, messages;
    double seconds;
};

inline Outcome Observe(const std::function<int(char **)> &call) {
    Outcome got{};
    char *buffer = nullptr;
    const auto start = std::chrono::steady_clock::now();
    got.messages = OutputOf([&] { got.result = call(&buffer); });
    got.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const HeapBlock<char> owner(buffer);
    EXPECT_EQ(buffer != nullptr, got.result > 0);
    if (buffer && got.result > 0) {
        EXPECT_EQ(buffer[got.result - 1], '\0');
        got.bytes.assign(buffer, got.result - 1);
    }
    return got;
}

// The outcome of a call in which `r` stands for the address of its buffer.
#define OBSERVE(expression) Observe([&]([[maybe_unused]] char **r) { return (expression); })

// Has a name server serve until the private host ends; in the foreground (-d) it keeps its user,
// which an ordinary user's namespace can't change.
inline void ServeNames() {
    static const int status = system(
        "/usr/sbin/dnsmasq -d -C /dev/null -u root -R -h -x '' -z -a 127.0.0.1 --local=/test/ "
        "--host-record=one.test,10.0.0.1 --cname=alias.test,one.test "
        "--host-record=nvr.test,127.0.0.77 --host-record=nvr.test,127.0.0.1 >/dev/null 2>&1 & "
        "for i in $(seq 200); do grep -q ':0035 ' /proc/net/udp && exit; sleep 0.05; done; exit 1");
    ASSERT_EQ(status, 0);
}
