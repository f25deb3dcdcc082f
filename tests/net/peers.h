// What the tests of this room share: calls with all that came of them, and a name server.
#pragma once

#include <chrono>

#include "common/owners.h"
#include "support/peers.h"

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
