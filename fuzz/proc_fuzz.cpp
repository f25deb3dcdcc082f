// What the program reads from /proc and /etc about the machine: interfaces, brand, routes,
// neighbours, command lines, name servers and the unit's identity.
#include <sys/stat.h>

#include <csignal>
#include <cstring>

#include "common/address.h"
#include "common/first_line.h"
#include "common/owners.h"
#include "config/process.h"
#include "discovery/announce.h"
#include "frame/modes.h"
#include "support.h"
#include "unit/interfaces.h"
#include "unit/net_info.h"

static void ReadTables(Input &input) {
    WriteFile("/tmp/table", NextText(input));
    NetDeviceName *names = nullptr;
    const int count = COM_GetDeviceFromProc(&names, "/tmp/table");
    const HeapBlock<NetDeviceName> owner(names);
    for (int i = 0; i < count; ++i) {
        Require(memchr(names[i].text, '\0', sizeof names[i].text));
    }
    frame::ReadBrand("/tmp/table");
}

static void ReadNetInfo(Input &input) {
    WriteFile("/proc/net/route", NextText(input));
    WriteFile("/proc/net/arp", NextText(input));
    WriteFile("/etc/resolv.conf", NextText(input));
    WriteFile("/etc/network/interfaces", NextText(input));
    const std::string device = NextText(input);
    for (int selector = -1; selector <= NETINFO_MTU + 1; ++selector) {
        char output[24];
        COM_GetNetInfo(selector, device.c_str(), output);
    }
    uint32_t address;
    uint32_t mask;
    COM_ConvertNetworkAddr(device.c_str(), &address, &mask);
}

static void FindProcesses(Input &input) {
    WriteFile("/proc/self/cmdline", NextText(input));
    const std::string name = NextText(input);
    COM_KillProcbyName(name.c_str(), "eth0", nullptr);
    COM_SendSignal(name.c_str(), 0, SIGTERM);
}

// Fills one record twice, as the server does.
static void ReadIdentity(Input &input) {
    for (const char *path : {"/etc/Model", "/etc/Proj", "/etc/Note", "/etc/Port"}) {
        WriteFile(path, NextText(input));
    }
    UnitInfo record{};
    for (int i = 0; i < 2; ++i) {
        COM_GetUnitInfo(&record, "eth0");
    }
    char package[discovery::kPackageSize];
    for (int type = -1; type <= TQ_PACKAGE_NETWORK_SETUP; ++type) {
        TQ_CreatePackage("eth0", type, package, &record);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool replaced = [] {
        mkdir("/etc/network", 0755);
        mkdir("/tmp/net", 0755);
        WriteFile("/tmp/cmdline", "");
        // The kernel drops what is mounted on single files of this folder.
        ReplaceInProc("/proc/self/net", "/tmp/net");
        ReplaceInProc("/proc/self/cmdline", "/tmp/cmdline");
        return true;
    }();
    static_cast<void>(replaced);
    Input input(data, size);
    switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
            ReadTables(input);
            break;
        case 1:
            ReadNetInfo(input);
            break;
        case 2:
            FindProcesses(input);
            break;
        default:
            ReadIdentity(input);
            break;
    }
    return 0;
}
