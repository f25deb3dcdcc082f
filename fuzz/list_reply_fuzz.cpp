// A list request from end to end: the server discovers the LAN, on which each text of the input is
// one unit's answer (an empty one: a wait in vain), and sends the list that it made of them.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

#include "common/base64.h"
#include "discovery/announce.h"
#include "discovery/client.h"
#include "discovery/server.h"
#include "support.h"

static constexpr char kListRequest[] =
    "Moravelle,02,model,proj,name,10.0.0.1,80,255.0.0.0,10.0.0.9,10.0.0.9,00:00:00:00:00:01,d,n";

// Takes eth0 its address: then no query is broadcast, for which the kernel takes its time.
static bool RemoveAddress() {
    const UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    strcpy(request.ifr_name, "eth0");
    request.ifr_addr.sa_family = AF_INET;
    return ioctl(sock.get(), SIOCSIFADDR, &request) == 0;
}

// A reply is Base64 of inverted texts, each of which ends in a zero byte.
static void CheckReply(const std::string &reply) {
    Require(reply.size() % 4 == 0);
    std::string texts(reply.size(), '\0');
    const int length = COM_Base64Decode(texts.data(), reply.c_str());
    Require(reply.empty() || texts[length - 1] == '\xFF');
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const UniqueFd sender = UdpSocket();
    static const bool removed = RemoveAddress();
    Require(removed);
    Input input(data, size);
    const bool tcp = input.ConsumeBool();
    TQ_Cfg cfg{};
    UniqueFd client;
    bool asked = false;
    gBeforeWait = [&](pollfd *sockets, nfds_t count, bool) {
        // The server waits for two sockets, its discovery for one.
        if (count > 1) {
            if (asked) {
                CheckReply(client ? Drain(client.get()) : "");
                return LeaveServerAtRest(sockets, count);
            }
            asked = true;
            const std::string request = Package(kListRequest);
            if (tcp) {
                client = ConnectAndSend(TQ_SERVER_PORT, request);
            } else {
                SendDatagram(sender, TQ_SERVER_PORT, request);
            }
            return Wait::kGoOn;
        }
        const std::string text = NextText(input);
        if (text.empty()) {
            return Wait::kTimeOut;
        }
        SendDatagram(sender, TQ_CLIENT_PORT, Package(text));
        return Wait::kGoOn;
    };
    RunServer([&] { TQ_Server_MORA("/tmp/TQ.pid", nullptr, &cfg); });
    return 0;
}
