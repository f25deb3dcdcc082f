#include "ctl/kirvex_exchange.h"

#include <cstdlib>
#include <cstring>
#include <span>

#include "common/socket.h"
#include "ctl/udp.h"

namespace ctl {

// A unit answers after several HTTP requests of its own; when it has not by then, the request or
// the reply is taken for lost.
static constexpr Milliseconds kRepeatAfter = 5000;

static constexpr Milliseconds kSecondTry = 500;

// No unit's name begins like this, so that one which compares names at all refuses the settings.
static constexpr char kNobodysName[] = "tqctl asks for the password only";

static in_addr NetworkOrder(Address address) {
    return {htonl(address)};
}

kx::Settings SettingsOf(const Unit &unit) {
    return {unit.info.name,
            NetworkOrder(unit.ip),
            static_cast<uint16_t>(strtoul(unit.info.trigger_port, nullptr, 10)),
            NetworkOrder(unit.netmask),
            NetworkOrder(unit.gateway),
            NetworkOrder(unit.dns),
            NetworkOrder(unit.secondDns),
            unit.dhcp == 1};
}

static kx::Target TargetOf(const Unit &unit) {
    kx::Target target{{}, NetworkOrder(unit.ip)};
    memcpy(target.mac, unit.mac, sizeof target.mac);
    return target;
}

namespace {

// One request on its way, and the socket that its reply comes to.
struct Exchange {
    const Way &way;
    const Unit &unit;
    std::span<const uint8_t> request;
    UniqueFd sock;
};

}  // namespace

static bool IsReplyTo(const Exchange &exchange, const Datagram &reply) {
    const std::span<const uint8_t> packet(reply.data, reply.size);
    // Sequence number, operation and MAC come back as they were sent.
    return reply.size >= kx::kStatusReplySize &&
           kx::ReadInteger(packet, kx::kIdentifier) == kx::kReplyIdentifier &&
           memcmp(packet.data() + kx::kSequenceNumber.offset,
                  exchange.request.data() + kx::kSequenceNumber.offset,
                  kx::kMac.end() - kx::kSequenceNumber.offset) == 0;
}

static bool Send(const Exchange &exchange, std::span<const uint8_t> packet) {
    const bool sent =
        SendUdp(exchange.sock.get(), exchange.unit.ip, kx::kPort, packet.data(), packet.size());
    if (exchange.way.verbose || !sent) {
        __extension__ Say(sent ? "operation 0x%02X to %s" : "operation 0x%02X to %s: %m",
                          kx::ReadInteger(packet, kx::kOperation), ToText(exchange.unit.ip).text);
    }
    return sent;
}

static bool WaitForReply(const Exchange &exchange, Milliseconds wait, Verdict *verdict) {
    const Stopwatch watch;
    while (watch.AwaitInput(exchange.sock.get(), wait)) {
        Datagram reply;
        if (ReceiveUdp(exchange.sock.get(), &reply) && IsReplyTo(exchange, reply)) {
            const std::span<const uint8_t> packet(reply.data, reply.size);
            *verdict = {true, kx::ReadInteger(packet, kx::kMode),
                        kx::ReadInteger(packet, kx::kErrorNumber),
                        kx::ReadInteger(packet, kx::kOperationStatus),
                        kx::ReadInteger(packet, kx::kWaitTimer)};
            return true;
        }
    }
    return false;
}

// A unit keeps what it has received, and completes the next short datagram with it: a stranger's
// bare header would act with these credentials. A search as long as any request covers them.
static bool CoverCredentials(const Exchange &exchange) {
    uint8_t search[kx::kChangeRequestSize];
    kx::WriteSearch(search);
    return Send(exchange, search);
}

// The cover waits in the unit's queue until the request has been carried out.
static bool SendCovered(const Exchange &exchange) {
    return Send(exchange, exchange.request) && CoverCredentials(exchange);
}

static Verdict Ask(const Way &way, const Unit &unit, std::span<uint8_t> request, int tries,
                   Milliseconds wait) {
    const Exchange exchange{way, unit, request, OpenUdp(way.link, way.source, 0)};
    Verdict verdict{};
    kx::WriteInteger(request, kx::kSequenceNumber, Ticks());
    const Stopwatch watch;
    while (exchange.sock && tries-- > 0 && watch.Passed() < wait && SendCovered(exchange)) {
        const Milliseconds left = wait - watch.Passed();
        if (WaitForReply(exchange, tries > 0 && left > kRepeatAfter ? kRepeatAfter : left,
                         &verdict)) {
            break;
        }
    }
    CoverCredentials(exchange);  // the first may have been lost
    return verdict;
}

// Asks, and once more where that may have another outcome: a first login that finds another
// administrator online ends that session and fails. The request is wiped.
static Verdict AskTwice(const Way &way, const Unit &unit, std::span<uint8_t> request, int tries,
                        Milliseconds wait) {
    Verdict verdict = Ask(way, unit, request, tries, wait);
    if (verdict.answered && verdict.code != kx::kSuccess && verdict.error == 0) {
        Pause(kSecondTry);
        verdict = Ask(way, unit, request, tries, wait);
    }
    explicit_bzero(request.data(), request.size());
    return verdict;
}

Verdict RequestSettings(const Way &way, const Unit &unit, const kx::Account &account,
                        const kx::Settings &settings, Milliseconds wait) {
    static constexpr int kTries = 3;
    uint8_t request[kx::kSetRequestSize];
    kx::WriteSetRequest(request, TargetOf(unit), account, settings);
    return AskTwice(way, unit, request, kTries, wait);
}

Verdict RequestLogin(const Way &way, const Unit &unit, const kx::Account &account,
                     Milliseconds wait) {
    // Should a unit not compare the name, it sets what it has.
    kx::Settings settings = SettingsOf(unit);
    settings.cameraName = kNobodysName;
    return RequestSettings(way, unit, account, settings, wait);
}

Verdict RequestPassword(const Way &way, const Unit &unit, const kx::Account &account,
                        const char *password, Milliseconds wait) {
    uint8_t request[kx::kChangeRequestSize];
    kx::WriteChangeRequest(request, TargetOf(unit), account, {account.name, password});
    return AskTwice(way, unit, request, 1, wait);
}

}  // namespace ctl
