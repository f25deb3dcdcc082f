// What this unit is to KIRVEX tools.
#pragma once

#include <cstdint>

#include "common/text.h"

namespace kx {

// What the unit calls itself, whatever its identity files say.
inline constexpr char kOwnBrand[] = "Orvane";
inline constexpr char kOwnModel[] = "QVR-7140-16T";
inline constexpr char kOwnVersion[] = "1.41";

// Where its interfaces are defined.
inline constexpr char kOwnInterfaces[] = "/mtd1/interfaces";

// The port of its web server, as the text that goes into addresses.
struct WebPort {
    char text[8];

    // The number that the text begins with, 0 without one.
    uint32_t number() const { return static_cast<uint32_t>(ParseInt(text)); }
};
WebPort ReadWebPort();

}  // namespace kx
