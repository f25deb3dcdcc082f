// One run of tqctl: the links, what is heard on them, and the unit that a command is about.
#pragma once

#include "ctl/kirvex_exchange.h"
#include "ctl/options.h"
#include "ctl/survey.h"

namespace ctl {

// What one who hears nothing should look at.
inline constexpr char kLikeliest[] =
    "Is it on, on this LAN, and are UDP ports 6666, 6667 and 62976 open here?";

struct Session {
    explicit Session(const Options &chosen)
        : options(chosen), survey(links, chosen.verbose != nullptr) {}

    const Options &options;
    Links links;
    Survey survey;
    Address source = 0;  // a temporary address, for units that can't answer otherwise
    Unit unit{};

    // Opens everything, and discovers.
    void Start();

    // The same, and stores the unit that the command names. One that can't answer gets a neighbour
    // to answer to, when that is wanted.
    void SelectUnit();

    // Sees that the results so far are written.
    void Flush();

    const Link &link() const { return *unit.link; }
    Way way() const { return {link(), source, options.verbose != nullptr}; }

  private:
    bool Choose();
    bool ApproachSilent();
    void Approach(const Silent &silent);
};

}  // namespace ctl
