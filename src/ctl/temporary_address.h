// An address that this machine has for the length of one command.
#pragma once

#include "common/owners.h"
#include "ctl/links.h"
#include "ctl/status.h"

namespace ctl {

class TemporaryAddress {
  public:
    TemporaryAddress() = default;
    TemporaryAddress(const TemporaryAddress &) = delete;
    TemporaryAddress &operator=(const TemporaryAddress &) = delete;

    // Adds an address to a link. It is removed when the program ends, also by a signal, and by the
    // kernel after ten minutes in any case. This object must be there until then.
    void Add(const Link &link, Address address, int prefix);
    void Remove();

    // 0 while there is none.
    Address address() const { return address_; }

  private:
    bool Request(bool add);

    UniqueFd sock_;
    int interface_ = 0;
    Address address_ = 0;
    int prefix_ = 0;
};

}  // namespace ctl
