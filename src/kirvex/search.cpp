#include "kirvex/search.h"

#include <chrono>
#include <cstdint>
#include <ctime>

#include "common/text.h"
#include "common/text_file.h"
#include "kirvex/endpoint.h"
#include "kirvex/own_unit.h"
#include "unit/net_info.h"

static constexpr char kSource[] = "KIRVEX";
static constexpr uint32_t kProductTypeRecorder = 1;

int KIRVEX_GetDHCPStatus(const char *device) {
    TextFile file(kx::kOwnInterfaces);
    if (!file) {
        TQ_LOG("fopen(%s) failed : %m\n", kx::kOwnInterfaces);
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

// The time in UTC as 14 digits, for which strftime would take as long as a file. The kernel's clock
// ends in 2262; one that 32 bits can't hold any more goes on from 1901.
static void SetNow(kx::Reply &reply) {
    static constexpr int kDay = 24 * 60 * 60;
    const time_t now = time(nullptr);
    const int second = static_cast<int>((now % kDay + kDay) % kDay);
    const std::chrono::days today(now / kDay - (now % kDay < 0 ? 1 : 0));
    const std::chrono::year_month_day date{std::chrono::sys_days(today)};
    const int year = static_cast<int>(date.year());
    const int month = static_cast<int>(static_cast<unsigned>(date.month()));
    const int day = static_cast<int>(static_cast<unsigned>(date.day()));
    uint8_t *out = reply.packet + kx::kDateTime.offset;
    for (const int pair :
         {year / 100, year % 100, month, day, second / 3600, second / 60 % 60, second % 60}) {
        *out++ = static_cast<uint8_t>('0' + pair / 10);
        *out++ = static_cast<uint8_t>('0' + pair % 10);
    }
}

int KIRVEX_Reply_DevSearch(const char *device, int sock, const sockaddr_in &sender,
                           kx::Request request) {
    kx::Reply reply = kx::StartReply(device, sock, request, kx::kSearchReplySize);
    const auto setting = [](kx::SettingsField field) { return field.In(kx::kReplySettings); };
    unit::FactSource facts(sock);
    const auto bytesOf = [&](kx::Field field) { return reply.packet + field.offset; };
    reply.Set(kx::kBrandName, kx::kOwnBrand);
    reply.Set(kx::kProductName, kx::kOwnModel);
    reply.Set(kx::kModelName, kx::kOwnModel);
    reply.Set(kx::kFirmware, kx::kOwnVersion);
    reply.Set(kx::kProductType, kProductTypeRecorder);
    facts.Mac(NETINFO_MAC_RAW, device, bytesOf(kx::kBodyMac));
    reply.Set(setting(kx::kCameraName), kx::kOwnModel);
    facts.Address(NETINFO_IP_RAW, device, bytesOf(setting(kx::kNewAddress)));
    reply.Set(setting(kx::kWebPort), kx::ReadWebPort().number());
    facts.Address(NETINFO_NETMASK_RAW, device, bytesOf(setting(kx::kNetmask)));
    facts.Gateway(NETINFO_GATEWAY_RAW, device, bytesOf(setting(kx::kGateway)));
    const auto address = [&](kx::SettingsField field) {
        return std::span<uint8_t, 4>(bytesOf(setting(field)), 4);
    };
    unit::GetNameServers(address(kx::kPrimaryDns), address(kx::kSecondaryDns));
    // The status goes out as it is: 1, or, for a fixed address, the byte 0xFF that -1 leaves here.
    reply.Set(setting(kx::kDhcp), static_cast<uint32_t>(KIRVEX_GetDHCPStatus(device)));
    SetNow(reply);
    return reply.Send(sock, sender, TQ_ORIGIN(__func__));
}

int KIRVEX_Reply_QuerySupportedOptFns(const char *device, int sock, const sockaddr_in &sender,
                                      kx::Request request) {
    return kx::StartReply(device, sock, request, kx::kHeaderSize)
        .Send(sock, sender, TQ_ORIGIN(__func__));
}
