// Queries for any name, and any replies to them, over UDP and straight into the parser.
#include <sys/socket.h>

#include <vector>

#include "common/socket.h"
#include "net/dns.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const UniqueFd server = UdpSocket();
    Input input(data, size);
    const std::string name = NextText(input);
    std::vector<unsigned char> query(kDnsQuerySize);
    const int length = DNS_CreateOutPacket(name.c_str(), query.data(), 1);
    Require(length <= static_cast<int>(query.size()));

    std::string reply;
    gBeforeWait = [&](pollfd *, nfds_t, bool) {
        char block[kDnsQuerySize];
        sockaddr_in asker{};
        socklen_t askerSize = sizeof asker;
        recvfrom(server.get(), block, sizeof block, MSG_DONTWAIT,
                 reinterpret_cast<sockaddr *>(&asker), &askerSize);
        reply = NextText(input);
        if (reply.empty()) {
            return Wait::kTimeOut;
        }
        SendDatagram(server, ntohs(asker.sin_port), reply);
        return Wait::kGoOn;
    };
    const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    socklen_t addressSize = sizeof address;
    getsockname(server.get(), reinterpret_cast<sockaddr *>(&address), &addressSize);
    DnsAddrEntry entries[kDnsMaxAddresses] = {};
    DNS_SendAQuery(sock.get(), &address, name.c_str(), entries, 1);

    const std::vector<unsigned char> exact(reply.begin(), reply.end());
    DNS_ParserAPacket(exact.data(), static_cast<int>(exact.size()), entries);
    return 0;
}
