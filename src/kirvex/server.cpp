#include "kirvex/server.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "common/owners.h"
#include "common/socket.h"
#include "common/text_file.h"
#include "config/process.h"
#include "kirvex/account.h"
#include "kirvex/endpoint.h"
#include "kirvex/packet.h"
#include "kirvex/search.h"
#include "kirvex/set_basic_info.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "KIRVEX";

int KIRVEX_CreateUDPRecvAnyAddrSocket(const char *device, int, int *sock, sockaddr_in *address) {
    if (!kx::OpenSocket(sock, device, true, TQ_ORIGIN(__func__))) {
        return -1;
    }
    *address = InternetAddress(INADDR_ANY, kx::kPort);
    if (!BindWhenFree(*sock, *address)) {
        TQ_LOG("bind error: %m\n");
        return -1;
    }
    KeepPortToOneself(*sock);
    // An answer never goes to a whole subnet, whatever address a request gives for its own.
    const int off = 0;
    setsockopt(*sock, SOL_SOCKET, SO_BROADCAST, &off, sizeof off);
    kx::WidenSendBuffer(*sock);
    return 0;
}

using ReplyFunction = int (*)(const char *, int, const sockaddr_in &, kx::Request);

// The reply function of an operation; null for none of ours.
static ReplyFunction FindOperation(uint32_t operation) {
    switch (operation) {
        case kx::kDevSearch:
            return KIRVEX_Reply_DevSearch;
        case kx::kSetBasicInfo:
            return KIRVEX_Reply_SetBasicInfo;
        case kx::kUserVerification:
            return KIRVEX_Reply_UserVerification;
        case kx::kChangeIDPwd:
            return KIRVEX_Reply_ChangeIDPwd;
        case kx::kQueryOptFns:
            return KIRVEX_Reply_QuerySupportedOptFns;
        default:
            return nullptr;
    }
}

static bool IsSearchMode(uint8_t byte) {
    return byte == kx::kReadModeByte || byte == kx::kSetModeByte;
}

int KIRVEX_ParserPkt(const char *device, int sock, const sockaddr_in &sender, kx::Request packet) {
    const uint32_t operation = kx::ReadInteger(packet, kx::kOperation);
    uint8_t own[kx::kHeaderSize] = {};
    unit::FactSource facts(sock);
    facts.Mac(NETINFO_MAC_RAW, device, own + kx::kMac.offset);
    facts.Address(NETINFO_IP_RAW, device, own + kx::kAddress.offset);
    const ReplyFunction reply = FindOperation(operation);
    if (kx::ReadInteger(packet, kx::kIdentifier) != kx::kRequestIdentifier || !reply) {
        return -1;
    }
    const uint8_t *mode = packet.data() + kx::kMode.offset;
    bool modeFits = IsSearchMode(mode[0]) && IsSearchMode(mode[1]);
    if (operation != kx::kDevSearch) {
        static_assert(kx::kMac.end() == kx::kAddress.offset);
        if (memcmp(packet.data() + kx::kMac.offset, own + kx::kMac.offset,
                   kx::kMac.size + kx::kAddress.size) != 0) {
            TQ_LOG("local mac/ip[%s/%s]\n", kx::ReadMac(own, kx::kMac).text,
                   kx::ReadAddress(own, kx::kAddress).text);
            return -1;
        }
        // Nobody asks from such an address, and what comes of it would be told to nobody.
        if (kx::IsBroadcast(device, sender)) {
            return -1;
        }
        modeFits = kx::ReadInteger(packet, kx::kMode) == kx::kSetMode;
    }
    if (!modeFits) {
        TQ_LOG("reqmode[0x%02X%02X] - receive error packet\n", mode[1], mode[0]);
        return -1;
    }
    return reply(device, sock, sender, packet);
}

int TQ_Server_KIRVEX(const char *pidFile, const char *device) {
    const char *name = device ? device : "eth0";
    UniqueFd sock;
    sockaddr_in address;
    if (KIRVEX_CreateUDPRecvAnyAddrSocket(name, kx::kPort, sock.address(), &address) == -1) {
        TQ_LOG("Create KIRVEX UDP Socket port %d failed!\n", kx::kPort);
        return -1;
    }
    TQ_LOG("Create KIRVEX UDP Socket (fd = %d)\n", sock.get());
    COM_SavePid(pidFile ? pidFile : config::kDefaultPidFile);
    // Never cleared: what a short request does not carry is read from the one before it.
    static uint8_t packet[kx::kReceiveSize];
    sockaddr_in sender{};
    socklen_t senderSize = sizeof sender;
    KeptTables tables;
    timeval wait{};  // none: for ever
    while (true) {
        // It waits here and not in poll(), which would be a system call more for each request; a
        // process that was stopped and goes on has nothing to report.
        if (recvfrom(sock.get(), packet, sizeof packet, MSG_NOSIGNAL,
                     reinterpret_cast<sockaddr *>(&sender), &senderSize) != -1) {
            KIRVEX_ParserPkt(name, sock.get(), sender, packet);
        } else if (errno == EAGAIN) {
            tables.Close();
        } else if (errno != EINTR) {
            TQ_LOG("recvfrom() failed! : %m\n");
        }
        const time_t seconds = tables ? KeptTables::kSeconds : 0;
        if (wait.tv_sec != seconds) {
            wait.tv_sec = seconds;
            setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        }
    }
}
