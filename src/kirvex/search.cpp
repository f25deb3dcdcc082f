#include "kirvex/search.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/text.h"
#include "common/text_file.h"
#include "kirvex/endpoint.h"
#include "kirvex/web_session.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "KIRVEX";
static constexpr uint32_t kProductTypeRecorder = 1;

int KIRVEX_GetDHCPStatus(const char *device) {
    TextFile file(kKirvexInterfaces);
    if (!file) {
        TQ_LOG("fopen(%s) failed : %s\n", kKirvexInterfaces, strerror(errno));
        return -1;
    }
    int status = -1;
    char line[1024];
    while (file.ReadLine(line)) {
        if (COM_StrNCaseStr(line, device) && COM_StrNCaseStr(line, "dhcp")) {
            status = 1;
        }
    }
    return status;
}

static void WriteNow(uint8_t *packet) {
    const time_t now = time(nullptr);
    tm utc;
    char text[kx::kDateTime.size] = {};
    // A clock past the year 99999 fits neither the record nor the field, which then stays empty.
    if (gmtime_r(&now, &utc) && strftime(text, sizeof text, "%Y%m%d%H%M%S", &utc) > 0) {
        WriteText(packet, kx::kDateTime, text);
    }
}

int KIRVEX_Reply_DevSearch(const char *device, int sock, const sockaddr_in &sender,
                           const uint8_t *request) {
    KirvexReply reply = StartReply(device, request, kx::kSearchReplySize);
    uint8_t *settings = reply.packet + kx::kReplySettings;
    WriteText(reply.packet, kx::kBrandName, kKirvexBrand);
    WriteText(reply.packet, kx::kProductName, kKirvexModel);
    WriteText(reply.packet, kx::kModelName, kKirvexModel);
    WriteText(reply.packet, kx::kFirmware, kKirvexVersion);
    reply.Set(kx::kProductType, kProductTypeRecorder);
    COM_GetNetInfo(NETINFO_MAC_RAW, device, reply.packet + kx::kBodyMac.offset);
    WriteText(settings, kx::kCameraName, kKirvexModel);
    COM_GetNetInfo(NETINFO_IP_RAW, device, settings + kx::kNewAddress.offset);
    WriteInteger(settings, kx::kWebPort, ReadWebServerPort().number());
    COM_GetNetInfo(NETINFO_NETMASK_RAW, device, settings + kx::kNetmask.offset);
    COM_GetNetInfo(NETINFO_GATEWAY_RAW, device, settings + kx::kGateway.offset);
    COM_GetNetInfo(NETINFO_DNS1_RAW, device, settings + kx::kPrimaryDns.offset);
    COM_GetNetInfo(NETINFO_DNS2_RAW, device, settings + kx::kSecondaryDns.offset);
    // The status goes out as it is: 1, or, for a fixed address, the byte 0xFF that -1 leaves here.
    WriteInteger(settings, kx::kDhcp, static_cast<uint32_t>(KIRVEX_GetDHCPStatus(device)));
    WriteNow(reply.packet);
    return reply.Send(sock, sender, {kSource, __func__});
}

int KIRVEX_Reply_QuerySupportedOptFns(const char *device, int sock, const sockaddr_in &sender,
                                      const uint8_t *request) {
    return StartReply(device, request, kx::kHeaderSize).Send(sock, sender, {kSource, __func__});
}
