// The native server, network setup allowed: each text of the input is a datagram or, behind "@",
// what a TCP client sends; "+" is a client that says nothing, and what follows "-" is said by the
// one that has been silent longest. Nobody answers the discoveries.
#include <deque>

#include "discovery/announce.h"
#include "discovery/client.h"
#include "discovery/server.h"
#include "support.h"

static constexpr char kInterfaces[] = "/tmp/interfaces";
static constexpr char kResolver[] = "/tmp/resolv.conf";

static void WriteNetworkFiles() {
    WriteFile(kInterfaces, "auto lo eth0\niface lo inet loopback\niface eth0 inet dhcp\n\n");
    WriteFile(kResolver, "nameserver 10.0.0.1\n");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const UniqueFd sender = UdpSocket();
    Input input(data, size);
    TQ_Cfg cfg{};
    cfg.netsetup = 1;
    snprintf(cfg.netfile, sizeof cfg.netfile, "%s", kInterfaces);
    snprintf(cfg.dnsfile, sizeof cfg.dnsfile, "%s", kResolver);
    WriteNetworkFiles();
    UniqueFd client;
    std::deque<UniqueFd> silent;
    gBeforeWait = [&](pollfd *sockets, nfds_t count, bool) {
        // The server waits for many sockets, a discovery for one.
        if (count == 1) {
            return Wait::kTimeOut;
        }
        if (input.remaining_bytes() == 0) {
            // A connection that the server closed first would keep the port from the next one.
            silent.clear();
            return LeaveServerAtRest(sockets, count);
        }
        const std::string text = NextText(input);
        if (text[0] == '@') {
            client = ConnectAndSend(TQ_SERVER_PORT, Package(text.substr(1)));
        } else if (text == "+" && silent.size() < 16) {
            silent.push_back(Connect(TQ_SERVER_PORT));
        } else if (text[0] == '-' && !silent.empty()) {
            SendAndEnd(silent.front(), Package(text.substr(1)));
            silent.pop_front();
        } else {
            SendDatagram(sender, TQ_SERVER_PORT, Package(text));
        }
        return Wait::kGoOn;
    };
    RunServer([&] { TQ_Server_MORA("/tmp/TQ.pid", nullptr, &cfg); });
    return 0;
}
