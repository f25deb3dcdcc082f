// What hands heap blocks, files and folders from owner to owner, called on a private host that has
// a default route.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/process.h"
#include "discovery/announce.h"
#include "discovery/client.h"
#include "net/dns.h"
#include "net/http.h"
#include "unit/interfaces.h"
#include "unit/unit_info.h"

static int Expect(bool right, const char *what) {
    if (!right) {
        printf("wrong: %s\n", what);
    }
    return right ? 0 : 1;
}

int main() {
    int wrong = 0;
    TQ_SendPackage(nullptr, 0, 6666);
    TQ_SendPackage("eth0", 1, 6667);
    NetDeviceName *devices = nullptr;
    wrong += Expect(COM_GetAllNetDevice(&devices) >= 1 && devices, "the list of interfaces");
    free(devices);
    UnitInfo unit{};
    COM_GetUnitInfo(&unit, "eth0");
    wrong += Expect(!strcmp(unit.ip, "192.168.1.20") && !strcmp(unit.gateway, "192.168.1.1"),
                    "the unit's own record");
    UnitInfo *units = nullptr;
    wrong += Expect(TQ_GetAllUnit(nullptr, &units, nullptr, 0) == -1 && !units,
                    "a discovery without units");
    char *page = nullptr;
    wrong += Expect(COM_GetHttpContent("http://127.0.0.1:9/", &page, nullptr) < 0,
                    "a web server that isn't there");
    free(page);
    char servers[4][kDnsNameServerSize] = {};
    DNS_GetNameServer(servers[0], servers[1], servers[2], servers[3]);
    wrong += Expect(COM_KillProcbyName("no such program", "at all", nullptr) == -1,
                    "a process that isn't there");
    return wrong;
}
