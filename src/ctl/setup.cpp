#include "ctl/setup.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/text.h"
#include "ctl/account.h"
#include "ctl/arp.h"
#include "ctl/print.h"
#include "ctl/text.h"
#include "ctl/udp.h"
#include "discovery/announce.h"
#include "discovery/raw_broadcast.h"

namespace ctl {

static constexpr int kLongestPrefix = 30;
static constexpr int kMostSetups = 3;
static constexpr Milliseconds kRepeatAfter = 3000;
static constexpr Milliseconds kRoundHalf = 250;

// "A/PREFIX", its address one that a host can have.
static Status ReadAddressWish(const char *text, Wish *wish) {
    char address[16];
    const char *slash = strchr(text, '/');
    CopyText(address, text);
    if (slash && static_cast<size_t>(slash - text) < sizeof address) {
        address[slash - text] = '\0';
    }
    char *end = nullptr;
    const long prefix = slash ? strtol(slash + 1, &end, 10) : 0;
    if (!slash || end == slash + 1 || *end != '\0' || !ReadAddress(address, &wish->address)) {
        return Fail(kUsage, "'%s' is no ADDRESS/PREFIX such as 192.168.1.21/24", text);
    }
    if (prefix < 1 || prefix > kLongestPrefix) {
        return Fail(kUsage,
                    "a prefix is a number from 1 to %d: behind it there must be room for "
                    "the unit and one other",
                    kLongestPrefix);
    }
    wish->prefix = static_cast<int>(prefix);
    const Address first = wish->address >> 24;
    if (first == 0 || first == 127 || first >= 224) {
        return Fail(kUsage, "%s is no address of a host", address);
    }
    const Address hosts = ~MaskOf(wish->prefix);
    if ((wish->address & hosts) == 0 || (wish->address & hosts) == hosts) {
        return Fail(kUsage, "%s is the %s address of its subnet, not one of a host", address,
                    (wish->address & hosts) == 0 ? "network" : "broadcast");
    }
    return kDone;
}

Status ReadWish(const Options &options, Wish *wish) {
    *wish = {};
    wish->dhcp = options.dhcp;
    if (wish->dhcp) {
        return kDone;
    }
    const Status status = ReadAddressWish(options.address, wish);
    if (status != kDone) {
        return status;
    }
    if (options.dns && (!ReadAddress(options.dns, &wish->dns) || wish->dns == 0)) {
        return Fail(kUsage, "the name server '%s' is no address", options.dns);
    }
    if (!options.gateway) {
        return kDone;
    }
    if (!ReadAddress(options.gateway, &wish->gateway) || wish->gateway == 0) {
        return Fail(kUsage, "the gateway '%s' is no address", options.gateway);
    }
    const Address mask = MaskOf(wish->prefix);
    const Address host = wish->gateway & ~mask;
    if (((wish->gateway ^ wish->address) & mask) != 0) {
        return Fail(kUsage,
                    "the gateway %s is not in the subnet of %s: the unit would leave it out",
                    options.gateway, options.address);
    }
    if (wish->gateway == wish->address || host == 0 || host == ~mask) {
        return Fail(kUsage, "%s can't be the gateway of %s", options.gateway, options.address);
    }
    return kDone;
}

static bool IsSendable(const char *identity) {
    return identity[0] != '\0' && !strpbrk(identity, ",\n");
}

// A unit takes a setup only when its identity in the package is the one that it reports. Returns
// the name of a text that no package can carry, or null.
static const char *FindUnsendable(const UnitInfo &info) {
    return !IsSendable(info.model)          ? "model"
           : !IsSendable(info.proj)         ? "project"
           : !IsSendable(info.name)         ? "name"
           : !IsSendable(info.trigger_port) ? "port"
           : !IsSendable(info.mac)          ? "MAC address"
           : !IsSendable(info.dev)          ? "interface name"
                                            : nullptr;
}

// Whether somebody else than the unit has an address already.
static bool IsTaken(Session &session, Address address) {
    UnitList &units = session.survey.units();
    for (int i = 0; i < units.count(); ++i) {
        if (units[i].ip == address && !units[i].IsSameAs(session.unit)) {
            Fail(kUsage, "refused: unit %s has %s already", units[i].info.mac,
                 ToText(address).text);
            return true;
        }
    }
    for (int i = 0; i < session.links.count; ++i) {
        if (session.links.link[i].Owns(address)) {
            Fail(kUsage, "refused: this machine has %s already", ToText(address).text);
            return true;
        }
    }
    uint8_t mac[ETH_ALEN];
    const Holder holder = FindHolder(session.link(), address, mac);
    if (holder == Holder::kSomebody && memcmp(mac, session.unit.mac, sizeof mac) != 0) {
        Fail(kUsage, "refused: %s has %s already", ToText(mac).text, ToText(address).text);
        return true;
    }
    if (holder == Holder::kUnknown) {
        fprintf(stderr, "tqctl: could not ask whether anybody has %s already\n",
                ToText(address).text);
    }
    return false;
}

// Says all that speaks against a wish; kDone when nothing does.
static Status CheckWish(Session &session, const Wish &wish) {
    const Unit &unit = session.unit;
    Status status = kDone;
    const char *unsendable = unit.kirvex ? nullptr : FindUnsendable(unit.info);
    if (unsendable) {
        status = Fail(kUsage,
                      "refused: the unit's %s is empty or holds a comma, and no setup that names "
                      "the unit can carry it: give it another one first",
                      unsendable);
    }
    if (!wish.dhcp && unit.dns == 0) {
        status = Fail(kUsage,
                      "refused: the unit reports no name server. Without a nameserver line in its "
                      "resolver file it would not apply fixed settings%s: use --dhcp, or give the "
                      "file such a line first",
                      unit.kirvex ? "" : ", but keep them for the next start");
    }
    if (!wish.dhcp && IsTaken(session, wish.address)) {
        status = kUsage;
    }
    return status;
}

// Whether a datagram to the unit's address would reach another one as well, or instead.
static bool SharesAddress(Session &session) {
    UnitList &units = session.survey.units();
    for (int i = 0; i < units.count(); ++i) {
        if (units[i].ip == session.unit.ip && !units[i].IsSameAs(session.unit)) {
            return true;
        }
    }
    return false;
}

static UnitInfo MakeSetup(const Unit &unit, const Wish &wish) {
    UnitInfo setup = unit.info;
    if (wish.dhcp) {
        CopyText(setup.note, "dhcp");
        return setup;
    }
    CopyText(setup.note, "static");
    CopyText(setup.ip, ToText(wish.address).text);
    CopyText(setup.netmask, ToText(MaskOf(wish.prefix)).text);
    // No subnet but one around 0.0.0.0 holds it: the unit writes no gateway then.
    CopyText(setup.gateway, ToText(wish.gateway).text);
    CopyText(setup.dns, ToText(wish.dns != 0 ? wish.dns : unit.dns).text);
    return setup;
}

// Sends a native setup to that unit alone: every unit that hears one has had its only chance.
static bool SendSetup(Session &session, const UnitInfo &setup) {
    char package[discovery::kPackageSize];
    const size_t size = discovery::EncodeUnit(TQ_PACKAGE_NETWORK_SETUP, setup, package);
    const Survey &survey = session.survey;
    if (survey.HasPacketRight()) {
        return discovery::SendToStation(survey.packetSocket(), session.link().index,
                                        session.unit.mac, TQ_SERVER_PORT, package, size) == 0;
    }
    return SendUdp(survey.nativeSocket(session.unit.link), session.unit.ip, TQ_SERVER_PORT, package,
                   size);
}

static void Describe(const Session &session, const Wish &wish, const char *verb) {
    char name[kCellSize];
    MakeHarmless(session.unit.info.name, name);
    fprintf(stderr, "%s %s (%s) on %s, to %s alone: ", verb, name, session.unit.info.mac,
            session.link().name,
            !session.unit.kirvex && session.survey.HasPacketRight() ? "its MAC address"
                                                                    : ToText(session.unit.ip).text);
    if (wish.dhcp) {
        fputs("DHCP\n", stderr);
        return;
    }
    PrintSettings(stderr, wish.address, wish.prefix, wish.gateway,
                  wish.dns != 0 ? wish.dns : session.unit.dns);
}

namespace {

// The wait until a unit shows what it was given.
struct Verification {
    Session &session;
    const Wish &wish;
    bool accepted;        // the unit has said so
    bool silent = false;  // it has been, so it did something
    Unit seen{};
};

}  // namespace

// Listens for one round. Returns whether the unit was heard.
static bool HearUnit(Verification &verification) {
    Survey &survey = verification.session.survey;
    survey.units().Clear();
    for (int i = 0; i < 2; ++i) {
        survey.Query();
        survey.Listen(kRoundHalf);
    }
    for (int i = 0; i < survey.units().count(); ++i) {
        const Unit &heard = survey.units()[i];
        if (heard.kirvex == verification.session.unit.kirvex &&
            memcmp(heard.mac, verification.session.unit.mac, ETH_ALEN) == 0) {
            verification.seen = heard;
            return true;
        }
    }
    return false;
}

static bool ShowsWish(const Verification &verification) {
    const Wish &wish = verification.wish;
    const Unit &seen = verification.seen;
    if (wish.dhcp) {
        // The same address once more counts when the unit has been away to ask for it.
        return seen.ip != verification.session.unit.ip || verification.accepted ||
               verification.silent;
    }
    return seen.ip == wish.address && seen.netmask == MaskOf(wish.prefix);
}

// A KIRVEX unit that has left this machine's subnets can't answer a search, but whoever has its MAC
// and the new address is the unit.
static bool HoldsAddress(const Verification &verification) {
    const Session &session = verification.session;
    uint8_t mac[ETH_ALEN];
    return session.unit.kirvex && !verification.wish.dhcp &&
           !session.link().Fits(verification.wish.address) &&
           FindHolder(session.link(), verification.wish.address, mac) == Holder::kSomebody &&
           memcmp(mac, session.unit.mac, sizeof mac) == 0;
}

static Status Report(const Verification &verification) {
    const Wish &wish = verification.wish;
    const Unit &seen = verification.seen;
    FILE *out = verification.session.out;
    char name[kCellSize];
    MakeHarmless(seen.info.name, name);
    fprintf(out, "%s (%s) answers from ", name, seen.info.mac);
    PrintSettings(out, seen.ip, seen.prefix, seen.gateway, seen.dns);
    if (!wish.dhcp && seen.gateway != wish.gateway) {
        fprintf(stderr, "tqctl: but its gateway is %s\n", ToText(seen.gateway, "none").text);
    }
    return kDone;
}

static Status ReportFailure(const Verification &verification, bool heard) {
    const Session &session = verification.session;
    const int seconds = session.options.wait / 1000;
    if (!heard) {
        return Fail(kNotTaken,
                    "the unit has not answered from anywhere within %d s (it was %s): its network "
                    "may still be restarting; look again with 'tqctl list'",
                    seconds, ToText(session.unit.ip).text);
    }
    if (session.unit.kirvex) {
        return Fail(kNotTaken, "the unit still answers from %s after %d s",
                    ToText(verification.seen.ip).text, seconds);
    }
    return Fail(kNotTaken,
                "the unit still answers from %s after %d s. Either its /etc/TQ.conf says "
                "NETSETUP=NO, or it has heard a setup since its daemon started (it takes one): "
                "restart the daemon and try again%s",
                ToText(verification.seen.ip).text, seconds,
                session.survey.HasPacketRight()
                    ? ""
                    : ". Or it can't be reached by its address: try as root");
}

// Discovers until the unit shows what it was given. `setup` is repeated while it still says what it
// said before, because the first may be lost; one that was heard makes it deaf to the next.
static Status Verify(Verification &verification, const UnitInfo *setup) {
    Session &session = verification.session;
    const Stopwatch watch;
    int sent = 1;
    bool heard = false;
    while (watch.Passed() < session.options.wait) {
        heard = HearUnit(verification);
        if (heard && ShowsWish(verification)) {
            return Report(verification);
        }
        if (!heard && HoldsAddress(verification)) {
            fprintf(session.out, "%s has %s: it answers address resolution there\n",
                    session.unit.info.mac, ToText(verification.wish.address).text);
            return kDone;
        }
        verification.silent |= !heard;
        if (setup && heard && sent < kMostSetups && watch.Passed() > sent * kRepeatAfter) {
            SendSetup(session, *setup);
            ++sent;
        }
    }
    return ReportFailure(verification, heard);
}

static Status SetNative(Session &session, const Wish &wish) {
    if (!session.survey.HasPacketRight() && (session.unit.ip == 0 || SharesAddress(session))) {
        return Fail(kNoRight,
                    "another unit has the address %s, too, or nobody has it; only a packet socket "
                    "reaches this unit alone: run this as root, or once: %s",
                    ToText(session.unit.ip).text, kSetcap);
    }
    const UnitInfo setup = MakeSetup(session.unit, wish);
    if (!SendSetup(session, setup)) {
        return Fail(kNoRight, "can't send on %s: %s", session.link().name, strerror(errno));
    }
    Describe(session, wish, "asked");
    Verification verification{session, wish, false};
    return Verify(verification, &setup);
}

static kx::Settings MakeSettings(const Unit &unit, const Wish &wish) {
    kx::Settings settings = SettingsOf(unit);
    settings.dhcp = wish.dhcp;
    if (!wish.dhcp) {
        settings.address.s_addr = htonl(wish.address);
        settings.netmask.s_addr = htonl(MaskOf(wish.prefix));
        settings.gateway.s_addr = htonl(wish.gateway);
        settings.primaryDns.s_addr = htonl(wish.dns != 0 ? wish.dns : unit.dns);
    }
    return settings;
}

static Status SetKirvex(Session &session, const Wish &wish) {
    Secret password;
    Status status = ReadCredentials(session.options, &password);
    if (status != kDone) {
        return status;
    }
    Describe(session, wish, "asking");
    const Verdict verdict =
        RequestSettings(session.way(), session.unit, {session.options.account, password.text},
                        MakeSettings(session.unit, wish), session.options.wait);
    if (verdict.answered && verdict.code != kx::kSuccess) {
        return verdict.error == kx::kErrorCameraName
                   ? Fail(kRefused, "the unit says that it is not called %s",
                          session.unit.info.name)
                   : FailLogin();
    }
    if (verdict.answered && verdict.status != kx::kStatusRestarting) {
        return Fail(kNotTaken,
                    "the unit took the request and did not carry it out: it could not rewrite its "
                    "files. Its resolver file needs a nameserver line, and its disk room");
    }
    if (verdict.answered) {
        Pause(static_cast<Milliseconds>(verdict.waitSeconds < 10 ? verdict.waitSeconds : 10) *
              1000);
    }
    Verification verification{session, wish, verdict.answered};
    return Verify(verification, nullptr);
}

static Status ShowDryRun(Session &session, const Wish &wish, Status status) {
    Describe(session, wish, "would ask");
    if (!session.unit.kirvex) {
        char text[discovery::kUnitTextSize];
        char cell[kCellSize];
        discovery::WriteUnitText(TQ_PACKAGE_NETWORK_SETUP, MakeSetup(session.unit, wish), text);
        MakeHarmless(text, cell);
        fprintf(session.out, "%s\n", cell);
    } else {
        const kx::Settings settings = MakeSettings(session.unit, wish);
        fprintf(session.out, "KIRVEX set: account %s, camera name %s, web port %d, DHCP %s\n",
                session.options.account, settings.cameraName, settings.webPort,
                settings.dhcp ? "on" : "off");
    }
    fprintf(stderr,
            status == kDone ? "nothing was sent\n" : "nothing was sent, and nothing would be\n");
    return status;
}

Status Set(Session &session) {
    Wish wish;
    Status status = ReadWish(session.options, &wish);
    status = status == kDone ? session.Start() : status;
    status = status == kDone ? session.SelectUnit() : status;
    if (status != kDone) {
        return status;
    }
    status = CheckWish(session, wish);
    if (session.options.dryRun) {
        return ShowDryRun(session, wish, status);
    }
    if (status != kDone) {
        return status;
    }
    return session.unit.kirvex ? SetKirvex(session, wish) : SetNative(session, wish);
}

}  // namespace ctl
