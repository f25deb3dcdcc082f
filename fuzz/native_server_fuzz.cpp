// The native server, network setup allowed: each text of the input is a datagram or, behind "@",
// what a TCP client sends. Nobody answers the discoveries.
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
    gBeforeWait = [&](pollfd *sockets, nfds_t count, bool forever) {
        if (!forever) {
            return Wait::kTimeOut;
        }
        if (input.remaining_bytes() == 0) {
            LeaveServer(sockets, count);
        }
        const std::string text = NextText(input);
        if (text[0] == '@') {
            client = ConnectAndSend(TQ_SERVER_PORT, Package(text.substr(1)));
        } else {
            SendDatagram(sender, TQ_SERVER_PORT, Package(text));
        }
        return Wait::kGoOn;
    };
    RunServer([&] { TQ_Server_MORA("/tmp/TQ.pid", nullptr, &cfg); });
    return 0;
}
