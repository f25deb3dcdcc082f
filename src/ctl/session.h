// One run of tqctl: the links, what is heard on them, and the unit that a command is about.
#pragma once

#include <cstdio>

#include "ctl/kirvex_exchange.h"
#include "ctl/options.h"
#include "ctl/survey.h"
#include "ctl/temporary_address.h"

namespace ctl {

struct Session {
    Session(const Options &chosen, FILE *output)
        : options(chosen), out(output), survey(links, chosen.verbose) {}

    const Options &options;
    FILE *out;
    Links links;
    Survey survey;
    TemporaryAddress temporary;  // for units of foreign subnets that can't answer otherwise
    Unit unit{};

    // Opens everything, and discovers.
    Status Start();

    // Finds the unit that the command names and stores it. One that can't answer gets a neighbour
    // to answer to, when that is wanted.
    Status SelectUnit();

    const Link &link() const { return links.link[unit.link]; }
    Way way() const { return {link(), temporary.address(), options.verbose}; }

  private:
    Status Choose();
    bool FindSilent(Silent *found) const;
    Status Approach(const Silent &silent);
};

}  // namespace ctl
