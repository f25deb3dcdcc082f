// What the KIRVEX tests stand on: a LAN behind eth0, the server and the account pages in processes
// of their own, and requests put together by hand.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>

#include <filesystem>
#include <regex>

#include "common/base64.h"
#include "kirvex/server.h"
#include "support/peers.h"

inline const std::string kServerLog = "/tmp/server.log", kPages = "/tmp/account-pages/";

// Runs a call for which new sockets belong to the other end of eth0's cable: 192.168.1.30 on lan0.
inline int OnLan(const std::function<int()> &call) {
    static const UniqueFd home(open("/proc/self/ns/net", O_RDONLY)), lan([] {
        Shell(
            "ip netns add lan && ip link set lan0 netns lan && ip -n lan link set lan0 up &&"
            "ip -n lan address add 192.168.1.30/24 dev lan0 && ip route add default via "
            "192.168.1.1");
        return open("/run/netns/lan", O_RDONLY);
    }());
    EXPECT_EQ(setns(lan.get(), CLONE_NEWNET), 0);
    const int result = call();
    EXPECT_EQ(setns(home.get(), CLONE_NEWNET), 0);
    return result;
}

// A child process that ends with the object; what it prints goes to a file.
struct Child {
    Child(const std::string &output, const std::function<void()> &body) {
        WriteFile(output, "");
        pid = fork();
        if (pid == 0) {
            dup2(open(output.c_str(), O_WRONLY | O_APPEND), STDOUT_FILENO);
            setvbuf(stdout, nullptr, _IOLBF, 0);
            body();
            _exit(1);
        }
    }
    ~Child() { Stop(); }
    void Stop() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        pid = 0;
    }
    bool alive() const {
        siginfo_t end{};
        waitid(P_PID, pid, &end, WEXITED | WNOHANG | WNOWAIT);
        return end.si_pid == 0;
    }
    pid_t pid;
};

struct Server : Child {
    Server() : Child(kServerLog, [] { TQ_Server_KIRVEX(nullptr, nullptr); }) {
        WriteFile("/etc/Port", "8080\n");
        while (alive() && !Holds(ReadFile(kServerLog), "UDP Socket (fd = ")) {
            usleep(1000);
        }
    }
};

// The account pages on port 8080; `scheme` is "basic" or "digest".
struct AccountPages : Child {
    explicit AccountPages(const std::string &scheme)
        : Child("/dev/null", [&] {
              const auto room = std::filesystem::path(__FILE__).parent_path();
              const std::string program = room / "../support/account-pages";
              execl(program.c_str(), program.c_str(), scheme.c_str(), "8080", nullptr);
          }) {
        while (alive() && !Holds(ReadFile("/proc/net/tcp"), ":1F90 00000000:0000 0A")) {
            usleep(1000);
        }
    }
};

// A web server on a port that gives every request the same bytes.
inline ScriptedServer Canned(uint16_t port, const std::string &answer) {
    return ScriptedServer([answer](int peer) { SendBytes(peer, answer); }, port);
}

// A text as a field of this size, cut or padded.
inline std::string Field(std::string text, size_t size) {
    text.resize(size);
    return text;
}

inline std::string Bytes(std::initializer_list<int> values) {
    return std::string(values.begin(), values.end());
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

// Settings for 192.168.1.44/24 with name server 10.0.0.9; DHCP without a gateway.
inline std::string Settings(const std::string &name, const std::string &gateway) {
    const in_addr_t quad = inet_addr(gateway.c_str());
    return Field(name, 64) + Bytes({192, 168, 1, 44, 0, 0, 0, 0, 255, 255, 255, 0}) +
           std::string(reinterpret_cast<const char *>(&quad), sizeof quad) +
           Bytes({10, 0, 0, 9, 0, 0, 0, 0, gateway.empty()});
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
    const UniqueFd sock(OnLan([] { return socket(AF_INET, SOCK_DGRAM, 0); }));
    const sockaddr_in unit = InternetAddress(inet_addr("192.168.1.20"), 62976);
    const std::string mark = Header(0xA5).replace(2, 2, 2, '\x7F');
    EXPECT_EQ(connect(sock.get(), AsSockaddr(unit), sizeof unit), 0);
    SendBytes(sock.get(), request);
    SendBytes(sock.get(), mark);
    for (std::string first;;) {
        char reply[1024];
        timeval patience{10, 0};
        WaitForSocket(sock.get(), POLLIN, &patience);
        const ssize_t size = recv(sock.get(), reply, sizeof reply, MSG_DONTWAIT);
        EXPECT_GE(size, 0) << "the server is silent";
        if (size < 0 || (size == 22 && reply[2] == mark[2])) {
            return first;
        }
        first.assign(reply, size);
        atReply();
    }
}

// These lines as a function says them.
inline std::string Said(const std::string &function, const std::string &lines) {
    return std::regex_replace(lines, std::regex("(.+)\n"), "KIRVEX:" + function + "(): $1\n");
}
