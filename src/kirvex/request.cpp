#include "kirvex/request.h"

#include <cstring>

#include "common/base64.h"

namespace kx {

// The longest text whose Base64 form its field holds.
static constexpr size_t kCredentialLength = kCredentialSize / 4 * 3;

static void StartRequest(uint8_t *packet, size_t size, uint16_t operation, const Target &target) {
    memset(packet, 0, size);
    WriteHeader(packet, size, kRequestIdentifier, operation, kSetMode);
    memcpy(packet + kMac.offset, target.mac, kMac.size);
    memcpy(packet + kAddress.offset, &target.address, kAddress.size);
}

static void WriteCredential(uint8_t *packet, size_t number, const char *text) {
    char encoded[Base64TextSize(kCredentialLength)];
    COM_Base64Encode(encoded, text, static_cast<int>(strnlen(text, kCredentialLength)));
    WriteText(packet, {kCredentials + number * kCredentialSize, kCredentialSize}, encoded);
}

static void WriteAccount(uint8_t *packet, size_t number, const Account &account) {
    WriteCredential(packet, number, account.name);
    WriteCredential(packet, number + 1, account.password);
}

void WriteSearch(uint8_t *packet, size_t size) {
    memset(packet, 0, size);
    WriteHeader(packet, size, kRequestIdentifier, kDevSearch, kReadMode);
    memset(packet + kMac.offset, 0xFF, kMac.size);
}

static void WriteAddress(uint8_t *packet, KirvexField field, in_addr address) {
    memcpy(packet + field.offset, &address, field.size);
}

void WriteSetRequest(uint8_t *packet, const Target &target, const Account &account,
                     const Settings &settings) {
    StartRequest(packet, kSetRequestSize, kSetBasicInfo, target);
    WriteAccount(packet, 0, account);
    uint8_t *block = packet + kRequestSettings;
    WriteText(block, kCameraName, settings.cameraName);
    WriteAddress(block, kNewAddress, settings.address);
    WriteInteger(block, kWebPort, settings.webPort);
    WriteAddress(block, kNetmask, settings.netmask);
    WriteAddress(block, kGateway, settings.gateway);
    WriteAddress(block, kPrimaryDns, settings.primaryDns);
    WriteAddress(block, kSecondaryDns, settings.secondaryDns);
    WriteInteger(block, kDhcp, settings.dhcp ? 1 : 0);
}

void WriteChangeRequest(uint8_t *packet, const Target &target, const Account &current,
                        const Account &changed) {
    StartRequest(packet, kChangeRequestSize, kChangeIDPwd, target);
    WriteAccount(packet, 0, current);
    WriteAccount(packet, 2, changed);
}

}  // namespace kx
