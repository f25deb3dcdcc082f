#include "kirvex/request.h"

#include <algorithm>
#include <cstring>

#include "common/base64.h"

namespace kx {

// The longest text whose Base64 form its field holds.
static constexpr size_t kCredentialLength = kCredentialSize / 4 * 3;

static void WriteAddress(std::span<uint8_t> packet, Field field, in_addr address) {
    memcpy(packet.data() + field.offset, &address, field.size);
}

static void StartRequest(std::span<uint8_t> packet, uint16_t operation, const Target &target) {
    std::ranges::fill(packet, uint8_t{0});
    WriteHeader(packet, kRequestIdentifier, operation, kSetMode);
    memcpy(packet.data() + kMac.offset, target.mac, kMac.size);
    WriteAddress(packet, kAddress, target.address);
}

static void WriteCredential(std::span<uint8_t> packet, size_t number, const char *text) {
    char encoded[Base64TextSize(kCredentialLength)];
    COM_Base64Encode(encoded, text, static_cast<int>(strnlen(text, kCredentialLength)));
    WriteText(packet, CredentialField(number), encoded);
}

static void WriteAccount(std::span<uint8_t> packet, size_t number, const Account &account) {
    WriteCredential(packet, number, account.name);
    WriteCredential(packet, number + 1, account.password);
}

void WriteSearch(std::span<uint8_t> packet) {
    std::ranges::fill(packet, uint8_t{0});
    WriteHeader(packet, kRequestIdentifier, kDevSearch, kReadMode);
    memset(packet.data() + kMac.offset, 0xFF, kMac.size);
}

void WriteSetRequest(std::span<uint8_t, kSetRequestSize> packet, const Target &target,
                     const Account &account, const Settings &settings) {
    StartRequest(packet, kSetBasicInfo, target);
    WriteAccount(packet, 0, account);
    WriteText(packet, kCameraName.In(kRequestSettings), settings.cameraName);
    WriteAddress(packet, kNewAddress.In(kRequestSettings), settings.address);
    WriteInteger(packet, kWebPort.In(kRequestSettings), settings.webPort);
    WriteAddress(packet, kNetmask.In(kRequestSettings), settings.netmask);
    WriteAddress(packet, kGateway.In(kRequestSettings), settings.gateway);
    WriteAddress(packet, kPrimaryDns.In(kRequestSettings), settings.primaryDns);
    WriteAddress(packet, kSecondaryDns.In(kRequestSettings), settings.secondaryDns);
    WriteInteger(packet, kDhcp.In(kRequestSettings), settings.dhcp ? 1 : 0);
}

void WriteChangeRequest(std::span<uint8_t, kChangeRequestSize> packet, const Target &target,
                        const Account &current, const Account &changed) {
    StartRequest(packet, kChangeIDPwd, target);
    WriteAccount(packet, 0, current);
    WriteAccount(packet, 2, changed);
}

}  // namespace kx
