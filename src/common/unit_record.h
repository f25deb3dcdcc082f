// The record of one unit (one appliance on the LAN), which most rooms hand to each other.
#pragma once

#include <cstdint>

// Zero-terminated texts.
struct UnitInfo {
    char model[32];
    char proj[32];
    char name[64];
    char ip[16];
    char trigger_port[8];
    char netmask[16];
    char gateway[16];
    char dns[16];
    char mac[24];
    char dev[16];
    char note[64];
    int32_t mtu;
};
