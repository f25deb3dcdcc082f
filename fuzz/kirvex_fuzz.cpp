// The KIRVEX server with every operation behind it: the texts of the input are its datagrams and,
// where a datagram has it ask the web server, the blocks that answers. Without a web server the
// connections are refused.
#include "common/wire.h"
#include "kirvex/packet.h"
#include "kirvex/server.h"
#include "support.h"

static void WriteUnitFiles(const std::string &webPort) {
    WriteFile("/etc/Port", webPort);
    WriteFile("/mtd1/interfaces", "auto lo\niface lo inet static\n address 10.0.0.2\n\n");
    WriteFile("/etc/resolv.conf", "nameserver 10.0.0.1\n");
}

static void CheckReply(const std::string &reply) {
    Require(reply.empty() || reply.size() >= kx::kHeaderSize);
    Require(reply.empty() || static_cast<uint8_t>(reply[0]) == (kx::kReplyIdentifier & 0xFF));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const UniqueFd sender = UdpSocket();
    static WebServer web(80);
    Input input(data, size);
    WriteUnitFiles(input.ConsumeBool() ? "80" : "81");
    gBeforeWait = [&](pollfd *sockets, nfds_t count, bool forever) {
        if (!forever) {
            return web.Serve(input);
        }
        CheckReply(Drain(sender.get()));
        if (input.remaining_bytes() == 0) {
            return LeaveServerAtRest(sockets, count);
        }
        SendDatagram(sender, kx::kPort, NextText(input));
        return Wait::kGoOn;
    };
    web.Restart();
    // On "lo" the unit's MAC is six zero bytes and its address 127.0.0.1.
    RunServer([] { TQ_Server_KIRVEX("/tmp/TQ.pid", "lo"); });
    return 0;
}
