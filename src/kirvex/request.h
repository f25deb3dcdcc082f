// What KIRVEX tools ask, as it goes on the wire.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "kirvex/credentials.h"
#include "kirvex/packet.h"

namespace kx {

// The unit that a request is for.
struct Target {
    uint8_t mac[6];
    in_addr address;
};

// The settings of a unit. The camera name must be the one that the unit has.
struct Settings {
    const char *cameraName;
    in_addr address;
    uint16_t webPort;
    in_addr netmask;
    in_addr gateway;
    in_addr primaryDns;
    in_addr secondaryDns;
    bool dhcp;
};

// Of an account, what Base64 makes too long for its field is cut.

// A search, to all units, of kHeaderSize bytes or more: the body, which nobody reads, is zero.
void WriteSearch(std::span<uint8_t> packet);

// A request to set basic information.
void WriteSetRequest(std::span<uint8_t, kSetRequestSize> packet, const Target &target,
                     const Account &account, const Settings &settings);

// A request to change name and password of an account.
void WriteChangeRequest(std::span<uint8_t, kChangeRequestSize> packet, const Target &target,
                        const Account &current, const Account &changed);

}  // namespace kx
