// Who is on the links: queries of both protocols, and what comes back.
#pragma once

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
    int link;
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
    void SearchFrom(int link, Address source);

    // Whether datagrams can be addressed to one station.
    bool HasPacketRight() const { return static_cast<bool>(packet_); }
    int packetSocket() const { return packet_.get(); }
    int nativeSocket(int link) const { return ends_[link].native.get(); }

    const Links &links() const { return links_; }
    UnitList &units() { return units_; }
    const Silent *silent() const { return silent_; }
    int silentCount() const { return silentCount_; }
    // Drops from the silent ones those that have been heard after all.
    void SortOut();

  private:
    // What one link is heard and spoken to with.
    struct End {
        UniqueFd native;
        UniqueFd kirvex;
        int link;
    };

    void TakeNative(int sock);
    void TakeSearchReply(int sock);
    void TakeArp();
    static void Take(Unit &unit, void *context);

    const Links &links_;
    bool verbose_;
    End ends_[kMostLinks + 1];  // one for each link, and one more for KIRVEX from another address
    UniqueFd packet_;
    UniqueFd arp_;
    UnitList units_;
    int link_ = 0;  // over which what is being read came
    Silent silent_[kMostSilent];
    int silentCount_ = 0;
};

}  // namespace ctl
