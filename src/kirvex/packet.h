// The KIRVEX datagrams: where each field lies, and how fields are read and written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/wire.h"

namespace kx {

// A field of a packet. Integers are little-endian, IPv4 addresses in network order, a MAC is in
// printed order; texts are padded with zero bytes, and one that fills its field has no terminator.
struct Field {
    size_t offset;
    size_t size;

    constexpr size_t end() const { return offset + size; }
};

// A field of a settings block, which stands in packets of two kinds.
struct SettingsField {
    size_t offset;
    size_t size;

    constexpr size_t end() const { return offset + size; }
    // The same field of a packet in which the block begins at `base`.
    constexpr Field In(size_t base) const { return {base + offset, size}; }
};

inline constexpr uint16_t kPort = 62976;

// The bytes of a request that the server may read, whatever was received.
inline constexpr size_t kReceiveSize = 16384;

inline constexpr Field kIdentifier{0, 2};
inline constexpr Field kSequenceNumber{2, 2};
inline constexpr Field kOperation{4, 2};
inline constexpr Field kMac{6, 6};
inline constexpr Field kAddress{12, 4};
inline constexpr Field kMode{16, 2};  // in a reply: the return code
inline constexpr Field kVersion{18, 2};
inline constexpr Field kBodyLength{20, 2};
inline constexpr size_t kHeaderSize = kBodyLength.end();

inline constexpr uint16_t kRequestIdentifier = 0xFDFD;
inline constexpr uint16_t kReplyIdentifier = 0xFEEE;
inline constexpr uint16_t kMessageVersion = 1;

inline constexpr uint16_t kDevSearch = 0x00A1;
inline constexpr uint16_t kSetBasicInfo = 0x00A2;
inline constexpr uint16_t kUserVerification = 0x00A3;
inline constexpr uint16_t kChangeIDPwd = 0x00A4;
inline constexpr uint16_t kQueryOptFns = 0x00A5;

inline constexpr uint8_t kReadModeByte = 0x00;
inline constexpr uint8_t kSetModeByte = 0x77;
inline constexpr uint16_t kReadMode = 0x0000;
inline constexpr uint16_t kSetMode = 0x7777;
inline constexpr uint16_t kSuccess = 0;
inline constexpr uint16_t kFailure = 1;

// The settings block: part of the search reply and of the request to set basic information.
inline constexpr SettingsField kCameraName{0, 64};
inline constexpr SettingsField kNewAddress{64, 4};
inline constexpr SettingsField kWebPort{68, 2};
inline constexpr SettingsField kReserved{70, 1};
inline constexpr SettingsField kScdns{71, 1};
inline constexpr SettingsField kNetmask{72, 4};
inline constexpr SettingsField kGateway{76, 4};
inline constexpr SettingsField kPrimaryDns{80, 4};
inline constexpr SettingsField kSecondaryDns{84, 4};
inline constexpr SettingsField kDhcp{88, 1};
inline constexpr size_t kSettingsSize = kDhcp.end();

// The search reply.
inline constexpr Field kBrandName{22, 64};
inline constexpr Field kProductName{86, 64};
inline constexpr Field kModelName{150, 32};
inline constexpr Field kFirmware{182, 32};
inline constexpr Field kProductType{214, 2};
inline constexpr Field kHardware{216, 4};
inline constexpr Field kBodyMac{220, 6};
inline constexpr size_t kReplySettings = 226;
inline constexpr Field kDateTime{315, 16};
inline constexpr Field kTimeZone{331, 2};
inline constexpr Field kDaylightSaving{333, 1};
inline constexpr size_t kSearchReplySize = kDaylightSaving.end();
static_assert(kReplySettings + kSettingsSize == kDateTime.offset && kSearchReplySize == 334);

// Requests with credentials begin their body with two or four Base64 fields of this size.
inline constexpr size_t kCredentials = kHeaderSize;
inline constexpr size_t kCredentialSize = 64;
inline constexpr size_t kRequestSettings = kCredentials + 2 * kCredentialSize;
inline constexpr size_t kSetRequestSize = kRequestSettings + kSettingsSize;
inline constexpr size_t kChangeRequestSize = kCredentials + 4 * kCredentialSize;
static_assert(kSetRequestSize == 239 && kChangeRequestSize == 278);

// The reply to the two setting operations.
inline constexpr Field kErrorNumber{22, 4};
inline constexpr Field kOperationStatus{26, 4};
inline constexpr Field kWaitTimer{30, 4};
inline constexpr Field kExtension{34, 4};
inline constexpr size_t kStatusReplySize = kExtension.end();

// The reply to a user verification.
inline constexpr Field kUserPrivilege{22, 4};
inline constexpr size_t kVerificationReplySize = kUserPrivilege.end();

inline constexpr uint32_t kErrorCameraName = 1;
inline constexpr uint32_t kErrorAccountLength = 1002;
inline constexpr uint32_t kErrorNewAccount = 1003;
inline constexpr uint32_t kErrorRefused = 1011;
inline constexpr uint32_t kErrorPasswordLength = 1012;
inline constexpr uint32_t kErrorNewPassword = 1013;
inline constexpr uint32_t kStatusRestarting = 2;
inline constexpr uint32_t kWaitSeconds = 3;
inline constexpr uint32_t kAdministrator = 1;
inline constexpr uint32_t kOrdinaryUser = 2;

// What the server hands on: its whole receive buffer, whatever was received.
using Request = std::span<const uint8_t, kReceiveSize>;
// Room for any reply.
using AnyReply = std::span<const uint8_t, kSearchReplySize>;
using SettingsBlock = std::span<const uint8_t, kSettingsSize>;

inline SettingsBlock SettingsOf(Request request) {
    return request.subspan<kRequestSettings, kSettingsSize>();
}

// The field must lie within the packet in all of the following.

// Reads or writes an integer field of at most 4 bytes.
inline uint32_t ReadInteger(std::span<const uint8_t> packet, Field field) {
    return ReadLittleEndian(packet.data() + field.offset, field.size);
}
inline void WriteInteger(std::span<uint8_t> packet, Field field, uint32_t value) {
    WriteLittleEndian(packet.data() + field.offset, field.size, value);
}

inline uint32_t ReadInteger(SettingsBlock settings, SettingsField field) {
    return ReadInteger(settings, field.In(0));
}

// Writes a text field of a zeroed packet, cut where the field ends.
void WriteText(uint8_t *bytes, size_t size, const char *text);
inline void WriteText(std::span<uint8_t> packet, Field field, const char *text) {
    WriteText(packet.data() + field.offset, field.size, text);
}

// An IPv4 address field as dotted text.
struct AddressText {
    char text[16];
};
AddressText ReadAddress(const uint8_t *bytes);
inline AddressText ReadAddress(std::span<const uint8_t> packet, Field field) {
    return ReadAddress(packet.data() + field.offset);
}

inline AddressText ReadAddress(SettingsBlock settings, SettingsField field) {
    return ReadAddress(settings, field.In(0));
}

// A MAC field as upper-case pairs joined by colons.
struct MacText {
    char text[18];
};
MacText ReadMac(const uint8_t *bytes);
inline MacText ReadMac(std::span<const uint8_t> packet, Field field) {
    return ReadMac(packet.data() + field.offset);
}

// Writes all of a header but sequence number, MAC and address into a zeroed packet.
void WriteHeader(std::span<uint8_t> packet, uint16_t identifier, uint16_t operation, uint16_t mode);

}  // namespace kx
