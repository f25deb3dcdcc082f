#include "ctl/session.h"

#include <cstdio>
#include <cstring>

#include "ctl/arp.h"
#include "ctl/ask.h"
#include "ctl/print.h"
#include "ctl/temporary_address.h"
#include "ctl/text.h"

namespace ctl {

void Session::Start() {
    FindLinks(options, &links);
    survey.Open();
    survey.Discover(options.listening);
}

void Session::Flush() {
    if (fflush(stdout) != 0 || ferror(stdout)) {
        __extension__ Fail(kFailed, "can't print: %m");
    }
}

static bool IsCalled(const Unit &unit, const char *name) {
    uint8_t mac[ETH_ALEN];
    Address address;
    return strcmp(unit.info.name, name) == 0 ||
           (ReadMac(name, mac) && memcmp(unit.mac, mac, sizeof mac) == 0) ||
           (ReadAddress(name, &address) && address != 0 && unit.ip == address);
}

// Stores the one unit that is called so. Returns false when there is none.
bool Session::Choose() {
    int count = 0;
    for (const Unit &candidate : survey.units()) {
        if (IsCalled(candidate, options.unit)) {
            unit = candidate;
            ++count;
        }
    }
    if (count < 2) {
        return count == 1;
    }
    Say("tqctl: '%s' is %d units; say which by its MAC address:", options.unit, count);
    for (const Unit &candidate : survey.units()) {
        if (IsCalled(candidate, options.unit)) {
            char name[kCellSize];
            MakeHarmless(candidate.info.name, name);
            Say("  %s  %s  %s", candidate.info.mac, ToText(candidate.ip).text, name);
        }
    }
    End(kSeveral);
}

// The longest prefix, of 24 at most, whose subnet holds both addresses. A unit that can't answer
// does not tell its own.
static int CommonPrefix(Address left, Address right) {
    int prefix = 24;
    while (prefix > 8 && ((left ^ right) & MaskOf(prefix)) != 0) {
        --prefix;
    }
    return prefix;
}

// A free address next to another one, so that it lies in the same subnet, however small; 0 when
// there is none.
static Address FindNeighbour(const Link &link, Address address, Address gateway) {
    static constexpr int16_t kSteps[] = {1, -1, 2, -2, 3, -3};
    for (const int step : kSteps) {
        const Address candidate = address + static_cast<Address>(step);
        const Address last = candidate & 0xFF;
        uint8_t mac[ETH_ALEN];
        if (candidate != gateway && last != 0 && last != 0xFF &&
            FindHolder(link, candidate, mac) == Holder::kNobody) {
            return candidate;
        }
    }
    return 0;
}

// Becomes a neighbour of a host that can't answer, and searches again.
void Session::Approach(const Silent &silent) {
    const Link &at = *silent.link;
    const AddressText text = ToText(silent.address);
    const Address gateway = silent.gateway;
    const Address neighbour = FindNeighbour(at, silent.address, gateway);
    if (neighbour == 0) {
        Fail(kNoRight, "no free address next to %s on %s", text.text, at.name);
    }
    const int prefix = CommonPrefix(silent.address, gateway != 0 ? gateway : silent.address);
    char detour[80];
    snprintf(detour, sizeof detour, "%s the address %s/%d for the length of this command", at.name,
             ToText(neighbour).text, prefix);
    Say("%s can answer only its own subnet", text.text);
    if (!options.yes && !Confirm(detour)) {
        Fail(kUsage, "--yes gives %s", detour);
    }
    AddTemporaryAddress(at, neighbour, prefix);
    source = neighbour;
    Say("gave %s", detour);
    survey.SearchFrom(at, neighbour);
    survey.Discover(options.listening);
}

// Approaches the host that the command names and that has not answered: it asks for its gateway in
// vain, or, without one, answers address resolution alone. Returns false when there is none.
bool Session::ApproachSilent() {
    Silent silent{};
    const bool isMac = ReadMac(options.unit, silent.mac);
    ReadAddress(options.unit, &silent.address);
    for (const Silent &heard : survey.silent()) {
        if (heard.address == silent.address ||
            (isMac && memcmp(heard.mac, silent.mac, sizeof silent.mac) == 0)) {
            Approach(heard);
            return true;
        }
    }
    for (const Link &at : links) {
        if (silent.address != 0 && !at.Fits(silent.address) &&
            FindHolder(at, silent.address, silent.mac) == Holder::kSomebody) {
            silent.link = &at;
            Approach(silent);
            return true;
        }
    }
    return false;
}

void Session::SelectUnit() {
    Start();
    if (Choose() || (ApproachSilent() && Choose())) {
        return;
    }
    char name[kCellSize];
    MakeHarmless(options.unit, name);
    Say("tqctl: no unit '%s' among %d heard. %s", name, survey.units().count(), kLikeliest);
    ExplainMarks(survey);
    End(kNoUnit);
}

}  // namespace ctl
