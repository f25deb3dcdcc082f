// What KIRVEX tools ask, as it goes on the wire.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "kirvex/packet.h"

namespace kx {

// The unit that a request is for.
struct Target {
    uint8_t mac[6];
    in_addr address;
};

// An account in clear text, both zero-terminated; what Base64 makes too long for its field is cut.
struct Account {
    const char *name;
    const char *password;
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

// A search, to all units. `size` is at least kHeaderSize: the body, which nobody reads, is zero.
void WriteSearch(uint8_t *packet, size_t size);

// A request to set basic information, kSetRequestSize bytes.
void WriteSetRequest(uint8_t *packet, const Target &target, const Account &account,
                     const Settings &settings);

// A request to change name and password of an account, kChangeRequestSize bytes.
void WriteChangeRequest(uint8_t *packet, const Target &target, const Account &current,
                        const Account &changed);

}  // namespace kx
