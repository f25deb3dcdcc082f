// The KIRVEX datagrams: where each field lies, and how a packet is put together and printed.
#pragma once

#include <cstddef>
#include <cstdint>

// A field of a packet. Integers are little-endian, IPv4 addresses in network order, a MAC is in
// printed order; texts are padded with zero bytes, and one that fills its field has no terminator.
struct KirvexField {
    size_t offset;
    size_t size;

    constexpr size_t end() const { return offset + size; }
    // The same field of a block that begins at `base`.
    constexpr KirvexField At(size_t base) const { return {base + offset, size}; }
};

namespace kx {

inline constexpr uint16_t kPort = 62976;

// The bytes of a request that the server may read, whatever was received.
inline constexpr size_t kReceiveSize = 16384;

inline constexpr KirvexField kIdentifier{0, 2};
inline constexpr KirvexField kSequenceNumber{2, 2};
inline constexpr KirvexField kOperation{4, 2};
inline constexpr KirvexField kMac{6, 6};
inline constexpr KirvexField kAddress{12, 4};
inline constexpr KirvexField kMode{16, 2};  // in a reply: the return code
inline constexpr KirvexField kVersion{18, 2};
inline constexpr KirvexField kBodyLength{20, 2};
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
inline constexpr KirvexField kCameraName{0, 64};
inline constexpr KirvexField kNewAddress{64, 4};
inline constexpr KirvexField kWebPort{68, 2};
inline constexpr KirvexField kReserved{70, 1};
inline constexpr KirvexField kScdns{71, 1};
inline constexpr KirvexField kNetmask{72, 4};
inline constexpr KirvexField kGateway{76, 4};
inline constexpr KirvexField kPrimaryDns{80, 4};
inline constexpr KirvexField kSecondaryDns{84, 4};
inline constexpr KirvexField kDhcp{88, 1};
inline constexpr size_t kSettingsSize = kDhcp.end();

// The search reply.
inline constexpr KirvexField kBrandName{22, 64};
inline constexpr KirvexField kProductName{86, 64};
inline constexpr KirvexField kModelName{150, 32};
inline constexpr KirvexField kFirmware{182, 32};
inline constexpr KirvexField kProductType{214, 2};
inline constexpr KirvexField kHardware{216, 4};
inline constexpr KirvexField kBodyMac{220, 6};
inline constexpr size_t kReplySettings = 226;
inline constexpr KirvexField kDateTime{315, 16};
inline constexpr KirvexField kTimeZone{331, 2};
inline constexpr KirvexField kDaylightSaving{333, 1};
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
inline constexpr KirvexField kErrorNumber{22, 4};
inline constexpr KirvexField kOperationStatus{26, 4};
inline constexpr KirvexField kWaitTimer{30, 4};
inline constexpr KirvexField kExtension{34, 4};
inline constexpr size_t kStatusReplySize = kExtension.end();

// The reply to a user verification.
inline constexpr KirvexField kUserPrivilege{22, 4};
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

}  // namespace kx

// Reads or writes an integer field of at most 4 bytes.
uint32_t ReadInteger(const uint8_t *packet, KirvexField field);
void WriteInteger(uint8_t *packet, KirvexField field, uint32_t value);

// Writes a text field of a zeroed packet, cut where the field ends.
void WriteText(uint8_t *packet, KirvexField field, const char *text);

// An IPv4 address field as dotted text.
struct AddressText {
    char text[16];
};
AddressText ReadAddress(const uint8_t *packet, KirvexField field);

// A MAC field as upper-case pairs joined by colons.
struct MacText {
    char text[18];
};
MacText ReadMac(const uint8_t *packet, KirvexField field);

// Writes all of a header but sequence number, MAC and address into a zeroed packet of `size` bytes.
void WriteHeader(uint8_t *packet, size_t size, uint16_t identifier, uint16_t operation,
                 uint16_t mode);

// Prints the header of a packet, one line per field.
void KIRVEX_PrintHeader(const uint8_t *packet);

// Prints the header of a reply and the body that its operation has; the packet must be as long as
// that operation's replies are.
void KIRVEX_PrintReplyPkt(const uint8_t *packet);
