#include "kirvex/own_unit.h"

#include "unit/identity.h"

kx::WebPort kx::ReadWebPort() {
    WebPort port{};
    COM_GetTriggerPort(port.text, sizeof port.text);
    return port;
}
