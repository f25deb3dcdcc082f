#include "kirvex/client.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/buffer.h"
#include "common/owners.h"
#include "common/pause.h"
#include "common/socket.h"
#include "common/text.h"
#include "kirvex/endpoint.h"
#include "kirvex/own_unit.h"
#include "kirvex/print.h"
#include "kirvex/request.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "KIRVEX";
static constexpr int kReplyWait = 1000;  // milliseconds

// How many datagrams may still be taken once the time is up: about as many as fit in the socket's
// queue, so that a peer that never stops sending can't hold the caller for ever.
static constexpr int kLateReplies = 256;

namespace {

// The wait for replies, one second in all.
class ReplyWait {
  public:
    explicit ReplyWait(MessageOrigin origin) : origin_(origin) { gettimeofday(&last_, nullptr); }

    // Waits until a datagram is there; false when the time is over.
    bool Next(int sock) {
        while (remaining_ > 0 || --late_ > 0) {
            pollfd wanted{sock, POLLIN, 0};
            const int ready = poll(&wanted, 1, static_cast<int>(remaining_ + 999) / 1000);
            const int error = errno;
            if (ready == 0) {
                return false;
            }
            Shorten();
            if (ready > 0) {
                return true;
            }
            if (error != EINTR) {
                TQ_LOG_FOR(origin_, "poll error: %s\n", strerror(error));
            }
        }
        return false;
    }

  private:
    void Shorten() {
        timeval now;
        gettimeofday(&now, nullptr);
        timeval later = now;
        timeval spent;
        const int backwards = COM_DiffTimeval(&spent, &later, &last_);
        last_ = now;
        const int64_t used = int64_t{spent.tv_sec} * 1000000 + spent.tv_usec;
        if (backwards != 0) {
            TQ_LOG_FOR(origin_, "time error - Should never happen\n");
        }
        remaining_ = backwards != 0 || used > remaining_ ? 0 : remaining_ - used;
    }

    MessageOrigin origin_;
    timeval last_;
    int64_t remaining_ = int64_t{kReplyWait} * 1000;  // microseconds
    int late_ = kLateReplies;
};

// One received datagram; what it is too short for reads as zero.
struct ReceivedReply {
    uint8_t packet[kx::kSearchReplySize];
    ssize_t length;

    explicit ReceivedReply(int sock) : packet{} {
        length = recv(sock, packet, sizeof packet, MSG_TRUNC);
    }
    bool IsReply() const { return Is(kx::kIdentifier, kx::kReplyIdentifier); }
    bool Is(kx::Field field, uint32_t value) const {
        return kx::ReadInteger(packet, field) == value;
    }
};

}  // namespace

static bool IsSearchReply(const ReceivedReply &reply, MessageOrigin origin) {
    if (!reply.IsReply()) {
        TQ_LOG_FOR(origin, "[0X%04X] - Not KIRVEX reply packet\n",
                   kx::ReadInteger(reply.packet, kx::kIdentifier));
        return false;
    }
    if (!reply.Is(kx::kOperation, kx::kDevSearch)) {
        TQ_LOG_FOR(origin, "[0X%04X] - Not KIRVEX Discovery packet\n",
                   kx::ReadInteger(reply.packet, kx::kOperation));
        return false;
    }
    if (!reply.Is(kx::kMode, kx::kSuccess)) {
        TQ_LOG_FOR(origin, "retcode[0X%04X] - recvive error packet\n",
                   kx::ReadInteger(reply.packet, kx::kMode));
        return false;
    }
    return true;
}

// Copies a text field, which may fill its bytes without a terminator.
template <size_t kSize>
static void CopyField(char (&out)[kSize], kx::AnyReply packet, kx::Field field) {
    static_assert(kSize <= 64, "never more than a text field holds");
    CopyText(out, reinterpret_cast<const char *>(packet.data() + field.offset));
}

static UnitInfo DescribeUnit(kx::AnyReply packet) {
    const auto setting = [](kx::SettingsField field) { return field.In(kx::kReplySettings); };
    UnitInfo unit{};
    CopyField(unit.model, packet, kx::kBrandName);
    CopyField(unit.proj, packet, setting(kx::kCameraName));
    CopyField(unit.name, packet, setting(kx::kCameraName));
    CopyText(unit.ip, kx::ReadAddress(packet, setting(kx::kNewAddress)).text);
    snprintf(unit.trigger_port, sizeof unit.trigger_port, "%u",
             kx::ReadInteger(packet, setting(kx::kWebPort)));
    CopyText(unit.netmask, kx::ReadAddress(packet, setting(kx::kNetmask)).text);
    CopyText(unit.gateway, kx::ReadAddress(packet, setting(kx::kGateway)).text);
    CopyText(unit.dns, kx::ReadAddress(packet, setting(kx::kPrimaryDns)).text);
    CopyText(unit.mac, kx::ReadMac(packet, kx::kBodyMac).text);
    return unit;
}

int KIRVEX_DevSearch(const char *device, UnitInfo **list) {
    const MessageOrigin origin = TQ_ORIGIN(__func__);
    uint8_t request[kx::kHeaderSize];
    kx::WriteSearch(request);
    UniqueFd sock;
    if (!kx::OpenSocket(sock.address(), COM_ConvertNetDevName(device), true, origin)) {
        return 0;
    }
    kx::SendPacket(sock.get(), InternetAddress(INADDR_BROADCAST, kx::kPort), request, origin);
    int count = 0;
    ReplyWait wait(origin);
    while (wait.Next(sock.get())) {
        const ReceivedReply reply(sock.get());
        if (reply.length >= 0 && IsSearchReply(reply, origin) &&
            AppendRecord(list, count, DescribeUnit(reply.packet))) {
            ++count;
        }
    }
    return count;
}

// The address of a text, 0 when it is none.
static in_addr AddressOf(const char *text) {
    in_addr address;
    return inet_aton(text, &address) != 0 ? address : in_addr{};
}

static void ReadMacText(const char *text, uint8_t (&mac)[kx::kMac.size]) {
    char copy[sizeof(UnitInfo::mac)];
    CopyText(copy, text);
    char *rest = copy;
    for (uint8_t &byte : mac) {
        const char *token = NextToken(&rest, " :-");
        byte = token ? static_cast<uint8_t>(strtoul(token, nullptr, 16)) : byte;
    }
}

static void WriteRequest(std::span<uint8_t, kx::kSetRequestSize> request, in_addr address,
                         const UnitInfo &unit) {
    kx::Target target{{}, address};
    ReadMacText(unit.mac, target.mac);
    const uint16_t webPort = static_cast<uint16_t>(kx::ReadWebPort().number());
    kx::WriteSetRequest(request, target, {"admin", ""},
                        {unit.name,
                         AddressOf(unit.ip),
                         webPort,
                         AddressOf(unit.netmask),
                         AddressOf(unit.gateway),
                         {},
                         {},
                         false});
}

static bool IsAcceptance(const ReceivedReply &reply, MessageOrigin origin) {
    if (!reply.IsReply()) {
        return false;
    }
    if (!reply.Is(kx::kOperation, kx::kSetBasicInfo)) {
        TQ_LOG_FOR(origin, "[0X%04X] - Not KIRVEX Set Basic Information packet\n",
                   kx::ReadInteger(reply.packet, kx::kOperation));
        return false;
    }
    if (!reply.Is(kx::kMode, kx::kSuccess)) {
        TQ_LOG_FOR(origin, "retcode[0X%04X] - recvive error packet\n",
                   kx::ReadInteger(reply.packet, kx::kMode));
        KIRVEX_PrintReplyPkt(reply.packet);
        return false;
    }
    return reply.length == kx::kStatusReplySize;
}

int KIRVEX_SetBasicInfo(const char *device, const char *target, const UnitInfo *unit) {
    const MessageOrigin origin = TQ_ORIGIN(__func__);
    in_addr address;
    if (inet_aton(target, &address) == 0) {
        return -1;
    }
    uint8_t request[kx::kSetRequestSize];
    WriteRequest(request, address, *unit);
    UniqueFd sock;
    if (!kx::OpenSocket(sock.address(), COM_ConvertNetDevName(device), false, origin) ||
        kx::SendPacket(sock.get(), InternetAddress(address.s_addr, kx::kPort), request, origin) ==
            -1) {
        return -1;
    }
    ReplyWait wait(origin);
    while (wait.Next(sock.get())) {
        const ReceivedReply reply(sock.get());
        if (reply.length >= 0 && IsAcceptance(reply, origin)) {
            break;
        }
    }
    return 0;
}
