#include "ctl/setup.h"

#include <cstdio>
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

// Whether an address is one that a host of its subnet can have.
static bool IsHost(Address address, Address mask) {
    const Address host = address & ~mask;
    const Address first = address >> 24;
    return host != 0 && host != ~mask && first != 0 && first != 127 && first < 224;
}

// "A/PREFIX".
static void ReadAddressWish(const char *text, Wish *wish) {
    char address[sizeof(AddressText) + 1];  // one that is too long stays too long
    CopyText(address, text);
    address[strcspn(address, "/")] = '\0';
    const char *slash = strchr(text, '/');
    char *end = nullptr;
    const unsigned long prefix = slash ? strtoul(slash + 1, &end, 10) : 0;
    if (!end || *end != '\0' || prefix < 1 || prefix > kLongestPrefix ||
        !ReadAddress(address, &wish->address)) {
        Fail(kUsage, "'%s' is no ADDRESS/PREFIX such as 192.168.1.21/24, the prefix from 1 to %d",
             text, kLongestPrefix);
    }
    wish->prefix = static_cast<int>(prefix);
    if (!IsHost(wish->address, MaskOf(wish->prefix))) {
        Fail(kUsage,
             "%s is no address of a host, but nobody's, a network address or a broadcast address",
             address);
    }
}

void ReadWish(const Options &options, Wish *wish) {
    *wish = {};
    wish->dhcp = options.dhcp != nullptr;
    if (wish->dhcp) {
        return;
    }
    ReadAddressWish(options.address, wish);
    wish->dns = ReadOption("name server", options.dns);
    wish->gateway = ReadOption("gateway", options.gateway);
    const Address mask = MaskOf(wish->prefix);
    if (wish->gateway != 0 && ((wish->gateway ^ wish->address) & mask) != 0) {
        Fail(kUsage, "the gateway %s is not in the subnet of %s: the unit would leave it out",
             options.gateway, options.address);
    }
    if (wish->gateway != 0 && (wish->gateway == wish->address || !IsHost(wish->gateway, mask))) {
        Fail(kUsage, "%s can't be the gateway of %s", options.gateway, options.address);
    }
}

static bool IsSendable(const char *identity) {
    return identity[0] != '\0' && identity[strcspn(identity, ",\n")] == '\0';
}

// A unit takes a setup only when its identity in the package is the one that it reports. Returns
// the name of a text that no package can carry, or null.
static const char *FindUnsendable(const UnitInfo &info) {
    return !IsSendable(info.model)          ? "model"
           : !IsSendable(info.proj)         ? "project"
           : !IsSendable(info.name)         ? "name"
           : !IsSendable(info.trigger_port) ? "port"
           : !IsSendable(info.dev)          ? "interface name"
                                            : nullptr;
}

// Another unit that has an address, or null.
static const Unit *FindUnitAt(Session &session, Address address) {
    for (const Unit &unit : session.survey.units()) {
        if (unit.ip == address && !unit.IsSameAs(session.unit)) {
            return &unit;
        }
    }
    return nullptr;
}

// Whether somebody else than the unit has an address already.
static bool IsTaken(Session &session, Address address) {
    const Unit *unit = FindUnitAt(session, address);
    const char *owner = unit ? unit->info.mac : nullptr;
    for (const Link &link : session.links) {
        owner = link.Owns(address) ? "this machine" : owner;
    }
    uint8_t mac[ETH_ALEN];
    kx::MacText text;
    if (!owner) {
        const Holder holder = FindHolder(session.link(), address, mac);
        if (holder == Holder::kUnknown) {
            Say("could not ask whether anybody has %s already", ToText(address).text);
        }
        if (holder == Holder::kSomebody && memcmp(mac, session.unit.mac, sizeof mac) != 0) {
            text = ToText(mac);
            owner = text.text;
        }
    }
    if (owner) {
        Say("refused: %s has %s already", owner, ToText(address).text);
    }
    return owner;
}

// Says all that speaks against a wish. Returns whether there is any.
static bool IsRefused(Session &session, const Wish &wish) {
    const Unit &unit = session.unit;
    const char *unsendable = !unit.HasMac() ? "MAC address"
                             : unit.kirvex  ? nullptr
                                            : FindUnsendable(unit.info);
    if (unsendable) {
        Say("refused: the unit's %s is empty, everybody's or holds a comma, which no setup can "
            "carry: change it first",
            unsendable);
    }
    const bool unnamed = !wish.dhcp && unit.dns == 0;
    if (unnamed) {
        Say("refused: the unit reports no name server, and without a nameserver line in its "
            "resolver file it applies no fixed settings: use --dhcp, or add the line first");
    }
    const bool taken = !wish.dhcp && IsTaken(session, wish.address);
    return unsendable || unnamed || taken;
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
    CopyText(setup.dns, ToText(wish.dns).text);
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
    return SendUdp(survey.nativeSocket(session.link()), session.unit.ip, TQ_SERVER_PORT, package,
                   size);
}

static void Describe(const Session &session, const Wish &wish, const char *verb) {
    char name[kCellSize];
    MakeHarmless(session.unit.info.name, name);
    Say("%s %s (%s) on %s, to %s alone: %s", verb, name, session.unit.info.mac, session.link().name,
        !session.unit.kirvex && session.survey.HasPacketRight() ? "its MAC address"
                                                                : ToText(session.unit.ip).text,
        wish.dhcp ? "DHCP"
                  : DescribeSettings(wish.address, wish.prefix, wish.gateway, wish.dns).text);
}

// Listens for one round. Returns the unit as it was heard, or null.
static const Unit *HearUnit(Session &session) {
    session.survey.HearRound(kRoundHalf);
    for (const Unit &unit : session.survey.units()) {
        if (unit.kirvex == session.unit.kirvex &&
            memcmp(unit.mac, session.unit.mac, ETH_ALEN) == 0) {
            return &unit;
        }
    }
    return nullptr;
}

// A KIRVEX unit that has left this machine's subnets can't answer a search, but whoever has its MAC
// and the new address is the unit.
static bool HoldsAddress(const Session &session, const Wish &wish) {
    uint8_t mac[ETH_ALEN];
    return session.unit.kirvex && !wish.dhcp && !session.link().Fits(wish.address) &&
           FindHolder(session.link(), wish.address, mac) == Holder::kSomebody &&
           memcmp(mac, session.unit.mac, sizeof mac) == 0;
}

static void Report(const Wish &wish, const Unit &seen) {
    char name[kCellSize];
    MakeHarmless(seen.info.name, name);
    printf("%s (%s) answers from %s\n", name, seen.info.mac,
           DescribeSettings(seen.ip, seen.prefix, seen.gateway, seen.dns).text);
    if (!wish.dhcp && seen.gateway != wish.gateway) {
        Say("but its gateway is %s", ToText(seen.gateway, "none").text);
    }
}

[[noreturn]] static void FailVerification(const Session &session, const Unit *seen) {
    const int seconds = session.options.patience / 1000;
    if (!seen) {
        Fail(kNotTaken,
             "the unit has not answered within %d s (it was %s): its network may still be "
             "restarting; look again with 'tqctl list'",
             seconds, ToText(session.unit.ip).text);
    }
    const bool kirvex = session.unit.kirvex;
    Fail(kNotTaken, "the unit still answers from %s after %d s%s%s", ToText(seen->ip).text, seconds,
         kirvex ? ""
                : ". Its /etc/TQ.conf says NETSETUP=NO, or its daemon has had its one setup: "
                  "restart the daemon and try again",
         kirvex || session.survey.HasPacketRight()
             ? ""
             : ". Or its address does not reach it: try as root");
}

// When the address stays as it was, gateway and name server tell whether the unit took the rest.
static bool ShowsWish(const Unit &before, const Wish &wish, const Unit &seen) {
    return seen.ip == wish.address && seen.prefix == wish.prefix &&
           (seen.ip != before.ip || seen.prefix != before.prefix ||
            (seen.gateway == wish.gateway && seen.dns == wish.dns));
}

// Discovers until the unit shows what it was given. `setup` is repeated while it still says what it
// said before, because the first may be lost; one that was heard makes it deaf to the next.
// `accepted` is whether the unit has said that it takes it.
static void Verify(Session &session, const Wish &wish, bool accepted, const UnitInfo *setup) {
    const Stopwatch watch;
    int sent = 1;
    const Unit *seen = nullptr;
    while (watch.Passed() < session.options.patience) {
        seen = HearUnit(session);
        if (!seen && HoldsAddress(session, wish)) {
            printf("%s has %s: it answers address resolution there\n", session.unit.info.mac,
                   ToText(wish.address).text);
            return;
        }
        // With DHCP the same address once more counts when the unit has been away to ask for it.
        accepted |= !seen;
        if (seen && (wish.dhcp ? accepted || seen->ip != session.unit.ip
                               : ShowsWish(session.unit, wish, *seen))) {
            Report(wish, *seen);
            return;
        }
        if (setup && seen && sent < kMostSetups && watch.Passed() > sent * kRepeatAfter) {
            SendSetup(session, *setup);
            ++sent;
        }
    }
    FailVerification(session, seen);
}

static void SetNative(Session &session, const Wish &wish) {
    const Address ip = session.unit.ip;
    if (!session.survey.HasPacketRight() &&
        (!session.link().IsOfOne(ip) || FindUnitAt(session, ip))) {
        Fail(kNoRight,
             "%s is not this unit's alone, and only a packet socket reaches it: run this as root, "
             "or once: %s",
             ToText(ip).text, kSetcap);
    }
    const UnitInfo setup = MakeSetup(session.unit, wish);
    if (!SendSetup(session, setup)) {
        __extension__ Fail(kNoRight, "can't send on %s: %m", session.link().name);
    }
    Describe(session, wish, "asked");
    Verify(session, wish, false, &setup);
}

static kx::Settings MakeSettings(const Unit &unit, const Wish &wish) {
    kx::Settings settings = SettingsOf(unit);
    settings.dhcp = wish.dhcp;
    if (!wish.dhcp) {
        settings.address.s_addr = htonl(wish.address);
        settings.netmask.s_addr = htonl(MaskOf(wish.prefix));
        settings.gateway.s_addr = htonl(wish.gateway);
        settings.primaryDns.s_addr = htonl(wish.dns);
    }
    return settings;
}

static void SetKirvex(Session &session, const Wish &wish) {
    Secret password;
    ReadCredentials(session.options, &password);
    Describe(session, wish, "asking");
    const Verdict verdict =
        RequestSettings(session.way(), session.unit, {session.options.account, password.text},
                        MakeSettings(session.unit, wish), session.options.patience);
    if (verdict.answered) {
        if (verdict.code != kx::kSuccess && verdict.error == kx::kErrorCameraName) {
            char name[kCellSize];
            MakeHarmless(session.unit.info.name, name);
            Fail(kRefused, "the unit says that it is not called %s", name);
        }
        if (verdict.code != kx::kSuccess) {
            FailLogin();
        }
        if (verdict.status != kx::kStatusRestarting) {
            Fail(kNotTaken,
                 "the unit did not carry it out: is there a nameserver line in its resolver file, "
                 "and room on its disk?");
        }
        const unsigned seconds = verdict.waitSeconds < 10 ? verdict.waitSeconds : 10;
        Pause(static_cast<Milliseconds>(seconds) * 1000);
    }
    Verify(session, wish, verdict.answered, nullptr);
}

static void ShowDryRun(Session &session, const Wish &wish) {
    Describe(session, wish, "would ask");
    if (!session.unit.kirvex) {
        char text[discovery::kUnitTextSize];
        char cell[kCellSize];
        discovery::WriteUnitText(TQ_PACKAGE_NETWORK_SETUP, MakeSetup(session.unit, wish), text);
        MakeHarmless(text, cell);
        printf("setup package: %s\n", cell);
    } else {
        const kx::Settings settings = MakeSettings(session.unit, wish);
        printf("KIRVEX set: account %s, camera name %s, web port %d, DHCP %s\n",
               session.options.account, settings.cameraName, settings.webPort,
               settings.dhcp ? "on" : "off");
    }
}

void Set(Session &session) {
    Wish wish;
    ReadWish(session.options, &wish);
    session.SelectUnit();
    if (wish.dns == 0) {
        wish.dns = session.unit.dns;
    }
    const bool refused = IsRefused(session, wish);
    if (session.options.dryRun) {
        ShowDryRun(session, wish);
        Say("nothing was sent%s", refused ? ", and nothing would be" : "");
    }
    if (refused) {
        End(kUsage);
    }
    if (session.options.dryRun) {
        return;
    }
    if (session.unit.kirvex) {
        SetKirvex(session, wish);
    } else {
        SetNative(session, wish);
    }
}

}  // namespace ctl
