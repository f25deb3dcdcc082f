// Who is on the links: queries of both protocols, and what comes back.
#pragma once

#include <span>

#include "common/owners.h"
#include "ctl/clock.h"
#include "ctl/links.h"
#include "ctl/status.h"
#include "ctl/unit.h"

namespace ctl {

// A host of a foreign subnet that asks in vain for its gateway, or for this machine: what a KIRVEX
// unit does when it wants to answer and can't.
struct Silent {
    Address address;
    Address gateway;  // 0: it has none
    uint8_t mac[ETH_ALEN];
    const Link *link;  // where it was heard
};

inline constexpr int kMostSilent = 32;

class Survey {
  public:
    Survey(const Links &links, bool verbose) : links_(links), verbose_(verbose) {}

    // Opens the sockets.
    void Open();

    // Queries in rounds until two in a row bring nobody new (1.6 to 5 s), or for `time`.
    void Discover(Milliseconds time);

    // Sends one query of each protocol on every link. Returns false with errno set when nothing
    // could be sent on any.
    bool Query();

    // Collects what comes, for so long.
    void Listen(Milliseconds time);

    // Forgets all units, and asks twice, each time with so long to answer.
    void HearRound(Milliseconds time);

    // Has searches on one link sent from that address of this machine as well.
    void SearchFrom(const Link &link, Address source);

    // Whether datagrams can be addressed to one station.
    bool HasPacketRight() const { return static_cast<bool>(packet_); }
    int packetSocket() const { return packet_.get(); }
    int nativeSocket(const Link &link) const { return ears_[&link - links_.link].sock.get(); }

    UnitList &units() { return units_; }
    std::span<const Silent> silent() const { return {silent_, static_cast<size_t>(silentCount_)}; }
    // Drops from the silent ones those that have been heard after all.
    void SortOut();

  private:
    enum class Protocol : uint8_t { kNative, kKirvex, kArp };

    // What a link is heard and spoken to with.
    struct Ear {
        UniqueFd sock;
        Protocol protocol;
        const Link *link;
    };
    // Two for each link, one for KIRVEX from another address, and one for the ARP of all links.
    static constexpr int kMostEars = 2 * kMostLinks + 2;

    void AddEar(UniqueFd sock, Protocol protocol, const Link *link);
    void TakeReply(const Ear &ear);
    void TakeArp(int sock);
    static void Take(Unit &unit, void *context);

    const Links &links_;
    bool verbose_;
    Ear ears_[kMostEars];  // those for the native protocol first, in the order of the links
    int earCount_ = 0;
    UniqueFd packet_;
    UnitList units_;
    const Link *link_ = nullptr;  // over which what is being read came
    Silent silent_[kMostSilent];
    int silentCount_ = 0;
};

}  // namespace ctl
