// The KIRVEX client: each text of the input is a unit's reply (an empty one: the time is over).
#include <sys/socket.h>

#include "common/owners.h"
#include "common/socket.h"
#include "kirvex/client.h"
#include "support.h"
#include "unit/unit_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const UniqueFd sender = UdpSocket();
    Input input(data, size);
    gBeforeWait = [&](pollfd *sockets, nfds_t, bool) {
        const std::string reply = NextText(input);
        sockaddr_in client{};
        socklen_t length = sizeof client;
        getsockname(sockets->fd, reinterpret_cast<sockaddr *>(&client), &length);
        if (reply.empty()) {
            return Wait::kTimeOut;
        }
        SendDatagram(sender, ntohs(client.sin_port), reply);
        return Wait::kGoOn;
    };
    UnitInfo *list = nullptr;
    const bool search = input.ConsumeBool();
    if (search) {
        const int count = KIRVEX_DevSearch("lo", &list);
        const HeapBlock<UnitInfo> owner(list);
        COM_ShowAllUnitInfo(count, list);
    } else {
        KIRVEX_SetBasicInfo("lo", "127.0.0.1", std::make_unique<UnitInfo>().get());
    }
    return 0;
}
