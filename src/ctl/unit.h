// A unit as it was heard, in whichever protocol it speaks.
#pragma once

#include <linux/if_ether.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/owners.h"
#include "ctl/links.h"
#include "unit/unit_info.h"

namespace ctl {

inline constexpr int kPackageFields = 11;

// What is -1 in it is not known.
struct Unit {
    UnitInfo info;  // its texts, as it says them
    bool kirvex;
    char protocol[8];
    char brand[64];  // KIRVEX alone, like the next one
    char firmware[32];
    char nameServers[40];  // all of them, with blanks between
    uint8_t mac[ETH_ALEN];
    Address ip;  // 0 when the text is no address, like the following
    Address netmask;
    Address gateway;
    Address dns;
    Address secondDns;
    int prefix;  // -1 also for a netmask with holes
    int dhcp;
    int fields;        // what a native answer carried; kPackageFields when it was whole
    int heard;         // how often
    int fits;          // whether its address lies in a subnet of the link
    const Link *link;  // on which it was heard; null when another unit told
    char interface[IFNAMSIZ];

    bool IsWhole() const { return kirvex || fields == kPackageFields; }
    // Whether it says a MAC address of one station.
    bool HasMac() const;
    bool IsHeardOnce() const { return heard == 1 && link; }
    // What names a unit among others.
    bool IsSameAs(const Unit &other) const;
    // Notes on which link it was heard, or that another unit told, who may mean any.
    void Place(const Links &links, const Link *at);
};

// Reads the text of a native package (inverted back, zero-terminated). An answer with other than
// eleven fields is read as far as its MAC field tells which is which: a name or a note may hold
// commas. Returns false for what is no unit's answer at all.
bool ReadUnitText(const char *text, Unit *unit);

// Reads an encoded package or list reply of `length` bytes; `take` is called for every unit in it.
// Returns their number.
using TakeUnit = void (*)(Unit &unit, void *context);
int ReadPackage(const char *encoded, size_t length, TakeUnit take, void *context);

// Reads a KIRVEX search reply.
bool ReadSearchReply(std::span<const uint8_t> packet, Unit *unit);

// Reads a MAC address written with ":", with "-" or without either.
bool ReadMac(const char *text, uint8_t (&mac)[ETH_ALEN]);

// Heap storage for units; without memory, what comes is dropped.
class UnitList {
  public:
    // Adds a unit, or counts and renews the one that is there. Returns it; null without memory.
    Unit *Take(const Unit &unit);
    // The same unit as it is known; null when it is not. Valid until the next change.
    Unit *Find(const Unit &unit);
    void Sort();  // by address, then by MAC
    void Clear() { count_ = 0; }

    // Drops all units but those that `isWanted` returns true for.
    template <class Condition>
    void Keep(Condition isWanted) {
        Unit *kept = begin();
        for (Unit &unit : *this) {
            if (isWanted(unit)) {
                *kept++ = unit;
            }
        }
        count_ = static_cast<int>(kept - begin());
    }
    int count() const { return count_; }
    Unit *begin() const { return units_.get(); }
    Unit *end() const { return begin() + count_; }

  private:
    HeapBlock<Unit> units_;
    int count_ = 0;
};

}  // namespace ctl
