#include "unit/unit_info.h"

#include <cstdio>

#include "common/text.h"
#include "frame/message.h"
#include "unit/identity.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "COMMON";

// How many bytes of the record lie from `field` to its end.
static int RoomFrom(const UnitInfo *record, const char *field) {
    return static_cast<int>(reinterpret_cast<const char *>(record + 1) - field);
}

int unit::FillUnitInfo(UnitInfo *record, const char *device, FactSource &facts) {
    const char *name = COM_ConvertNetDevName(device);
    CopyText(record->dev, name);
    int result = 0;
    result += AppendModelName(record->model, sizeof record->model, RoomFrom(record, record->model));
    result += AppendProjName(record->proj, sizeof record->proj, RoomFrom(record, record->proj));
    result += COM_GetUnitName(record->name, sizeof record->name);
    result += facts.Address(NETINFO_IP_STR, name, record->ip);
    result += AppendTriggerPort(record->trigger_port, sizeof record->trigger_port,
                                RoomFrom(record, record->trigger_port));
    result += facts.Address(NETINFO_NETMASK_STR, name, record->netmask);
    result += facts.Gateway(NETINFO_GATEWAY_STR, name, record->gateway);
    result += facts.NameServer(NETINFO_DNS1_STR, name, record->dns);
    result += facts.Mac(NETINFO_MAC_COLON, name, record->mac);
    // The note is compared with nothing, so it need not run on into the number behind it.
    result += COM_GetNote(record->note, sizeof record->note);
    result += facts.Mtu(name, &record->mtu);
    return result;
}

int COM_GetUnitInfo(UnitInfo *record, const char *device) {
    unit::FactSource facts;
    return unit::FillUnitInfo(record, device, facts);
}

void COM_ShowAllUnitInfo(int count, const UnitInfo *records) {
    for (int i = 0; i < count; ++i) {
        printf("[%d/%d]\n", i + 1, count);
        COM_ShowUnitInfo(&records[i]);
    }
}

void COM_ShowUnitInfo(const UnitInfo *record) {
    TQ_LOG_UNNAMED("(model, proj, name) = (%s, %s, %s)\n", record->model, record->proj,
                   record->name);
    TQ_LOG_UNNAMED("(ip, trigger_port, netmask) = (%s, %s, %s)\n", record->ip, record->trigger_port,
                   record->netmask);
    TQ_LOG_UNNAMED("(gateway, dns, mac) = (%s, %s, %s)\n", record->gateway, record->dns,
                   record->mac);
    TQ_LOG_UNNAMED("(dev, note) = (%s, %s)\n", record->dev, record->note);
}
