// The machine's network interfaces.
#pragma once

// One slot of an interface list: a name, zero-terminated.
struct NetDeviceName {
    char text[16];
};

// Lists the interfaces in the kernel's order. *list must be null on entry; the caller frees it.
// Returns the number of names, or -1.
int COM_GetAllNetDevice(NetDeviceName **list);

// The same from a file in the format of "/proc/net/dev". Only letters and digits of a name are
// kept.
int COM_GetDeviceFromProc(NetDeviceName **list, const char *path);
