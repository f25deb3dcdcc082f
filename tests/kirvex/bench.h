// What the KIRVEX tests stand on: a LAN behind eth0, the server and web servers in processes of
// their own, and requests put together by hand.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>
#include <functional>
#include <vector>

#include "common/base64.h"
#include "common/socket.h"
#include "common/unique_fd.h"
#include "kirvex/server.h"
#include "support/files.h"

inline const std::string kServerLog = "/tmp/server.log";
inline const std::string kCannedLog = "/tmp/canned.log";
inline const std::string kPages = "/tmp/account-pages/";

// While it lives, new sockets belong to the other end of eth0's cable: 192.168.1.30 on lan0.
class OnLan {
  public:
    OnLan() : home_(open("/proc/self/ns/net", O_RDONLY)) {
        if (!std::filesystem::exists("/run/netns/lan")) {
            Shell(
                "ip netns add lan && ip link set lan0 netns lan && ip -n lan link set lan0 up &&"
                "ip -n lan address add 192.168.1.30/24 dev lan0 &&"
                "ip route add default via 192.168.1.1");
        }
        EXPECT_EQ(setns(UniqueFd(open("/run/netns/lan", O_RDONLY)).get(), CLONE_NEWNET), 0);
    }
    ~OnLan() { EXPECT_EQ(setns(home_.get(), CLONE_NEWNET), 0); }

  private:
    UniqueFd home_;
};

// A child process that ends with the object; what it prints goes to a file.
class Child {
  public:
    Child(const std::string &output, const std::function<void()> &body) {
        const UniqueFd file(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644));
        pid_ = fork();
        if (pid_ == 0) {
            dup2(file.get(), STDOUT_FILENO);
            setvbuf(stdout, nullptr, _IOLBF, 0);
            body();
            _exit(1);
        }
    }
    Child(Child &&other) noexcept : pid_(other.pid_) { other.pid_ = 0; }
    ~Child() { Stop(); }
    void Stop() {
        if (alive()) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }
    bool alive() {
        pid_ = pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0 ? pid_ : 0;
        return pid_ > 0;
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

inline Child StartServer() {
    WriteFile("/etc/Port", "8080\n");
    Child server(kServerLog, [] { TQ_Server_KIRVEX(nullptr, nullptr); });
    while (server.alive() && ReadFile(kServerLog).find("UDP Socket (fd = ") == std::string::npos) {
        usleep(1000);
    }
    return server;
}

// The account pages on port 8080; `scheme` is "basic" or "digest".
inline Child StartPages(const std::string &scheme) {
    Child server("/dev/null", [&] {
        const auto program =
            std::filesystem::path(__FILE__).parent_path() / "../support/account-pages";
        execl(program.c_str(), program.c_str(), scheme.c_str(), "8080", nullptr);
    });
    const sockaddr_in address = InternetAddress(htonl(INADDR_LOOPBACK), 8080);
    while (server.alive() && connect(UniqueFd(socket(AF_INET, SOCK_STREAM, 0)).get(),
                                     AsSockaddr(address), sizeof address) != 0) {
        usleep(1000);
    }
    return server;
}

// A web server that gives every request the same bytes and closes; request lines go to kCannedLog.
inline Child StartCanned(uint16_t port, const std::string &answer) {
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = InternetAddress(htonl(INADDR_LOOPBACK), port);
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(bind(listener.get(), AsSockaddr(address), sizeof address), 0);
    EXPECT_EQ(listen(listener.get(), 16), 0);
    return Child(kCannedLog, [&] {
        char request[4096];
        while (true) {
            const UniqueFd peer(accept(listener.get(), nullptr, nullptr));
            const ssize_t length = recv(peer.get(), request, sizeof request, 0);
            const std::string text(request, length > 0 ? length : 0);
            dprintf(STDOUT_FILENO, "%s\n", text.substr(0, text.find('\r')).c_str());
            send(peer.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    });
}

inline std::string Bytes(std::initializer_list<int> values, size_t size = 0) {
    std::string text(values.begin(), values.end());
    text.resize(std::max(size, text.size()));
    return text;
}

// A text as a field of this size, cut or padded.
inline std::string Field(std::string text, size_t size) {
    text.resize(size);
    return text;
}

inline const std::string kUnit = Bytes({2, 0, 0x5E, 0, 0x53, 1, 192, 168, 1, 20});

inline std::string Header(int operation, const std::string &mode = "ww") {
    return Bytes({0xFD, 0xFD, 0x12, 0x34, operation, 0}) + kUnit + mode + Bytes({1, 0, 0, 0});
}

inline std::string Credentials(const std::vector<std::string> &texts) {
    std::string fields;
    for (const std::string &text : texts) {
        char encoded[96];
        COM_Base64Encode(encoded, text.data(), static_cast<int>(text.size()));
        fields += Field(encoded, 64);
    }
    return fields;
}

// Settings for 192.168.1.44/24 with name server 10.0.0.9.
inline std::string Settings(const std::string &name, bool dhcp, in_addr_t gateway) {
    const uint8_t *bytes = reinterpret_cast<uint8_t *>(&gateway);
    return Field(name, 64) + Bytes({192, 168, 1, 44, 0, 0, 0, 0, 255, 255, 255, 0}) +
           Bytes({bytes[0], bytes[1], bytes[2], bytes[3], 10, 0, 0, 9, 0, 0, 0, 0, dhcp});
}

// The reply of 38 bytes to the two setting operations.
inline std::string StatusReply(int operation, int code, int error, int status = 0, int wait = 0,
                               int extension = 0) {
    return Bytes({0xEE, 0xFE, 0x12, 0x34, operation, 0}) + kUnit +
           Bytes({code, 0, 1, 0, 16, 0, error & 255, error >> 8, 0, 0}) +
           Bytes({status, 0, 0, 0, wait, 0, 0, 0, extension, 0, 0, 0});
}

// Sends a request from the LAN and returns the reply, as soon as it is there also to `atReply`;
// empty when the next reply is to the marked query that is sent behind the request.
inline std::string Ask(
    const std::string &request, const std::function<void()> &atReply = [] {}) {
    UniqueFd sock;
    {
        const OnLan lan;
        sock.reset(socket(AF_INET, SOCK_DGRAM, 0));
    }
    const sockaddr_in unit = InternetAddress(inet_addr("192.168.1.20"), 62976);
    const std::string mark = Header(0xA5).replace(2, 2, 2, '\x7F');
    for (const std::string &text : {request, mark}) {
        sendto(sock.get(), text.data(), text.size(), 0, AsSockaddr(unit), sizeof unit);
    }
    for (std::string first;;) {
        char reply[1024];
        static time_t patience = 30;  // no more of it once the server was silent
        timeval limit{patience, 0};
        const bool heard = WaitForSocket(sock.get(), POLLIN, &limit) == 1;
        EXPECT_TRUE(heard) << "the server is silent";
        patience = heard ? patience : 1;
        const std::string text(reply, heard ? recv(sock.get(), reply, sizeof reply, 0) : 0);
        if (!heard || (text.size() == 22 && text[2] == mark[2])) {
            return first;
        }
        first = text;
        atReply();
    }
}

// Messages without source and line.
inline std::string Shorten(const std::string &log) {
    std::string kept;
    for (size_t at = 0, end; (end = log.find('\n', at)) != std::string::npos; at = end + 1) {
        kept += log.substr(log.find(':', at) + 1, end - log.find(':', at));
    }
    return kept;
}
