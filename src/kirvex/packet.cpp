#include "kirvex/packet.h"

#include <cstdio>
#include <cstring>

#include "common/wire.h"
#include "frame/message.h"

static constexpr char kSource[] = "KIRVEX";

uint32_t ReadInteger(const uint8_t *packet, KirvexField field) {
    return ReadLittleEndian(packet + field.offset, field.size);
}

void WriteInteger(uint8_t *packet, KirvexField field, uint32_t value) {
    WriteLittleEndian(packet + field.offset, field.size, value);
}

void WriteText(uint8_t *packet, KirvexField field, const char *text) {
    memcpy(packet + field.offset, text, strnlen(text, field.size));
}

AddressText ReadAddress(const uint8_t *packet, KirvexField field) {
    const uint8_t *bytes = packet + field.offset;
    AddressText address;
    snprintf(address.text, sizeof address.text, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2],
             bytes[3]);
    return address;
}

MacText ReadMac(const uint8_t *packet, KirvexField field) {
    const uint8_t *bytes = packet + field.offset;
    MacText mac;
    snprintf(mac.text, sizeof mac.text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1],
             bytes[2], bytes[3], bytes[4], bytes[5]);
    return mac;
}

void WriteHeader(uint8_t *packet, size_t size, uint16_t identifier, uint16_t operation,
                 uint16_t mode) {
    WriteInteger(packet, kx::kIdentifier, identifier);
    WriteInteger(packet, kx::kOperation, operation);
    WriteInteger(packet, kx::kMode, mode);
    WriteInteger(packet, kx::kVersion, kx::kMessageVersion);
    WriteInteger(packet, kx::kBodyLength, static_cast<uint32_t>(size - kx::kHeaderSize));
}

namespace {

// Prints single fields of a packet in the name of a public function.
class FieldPrinter {
  public:
    FieldPrinter(const uint8_t *packet, const char *function)
        : packet_(packet), origin_{kSource, function} {}

    void Integer(const char *label, KirvexField field) const {
        TQ_LOG_FOR(origin_, "%s: 0x%0*X\n", label, static_cast<int>(2 * field.size),
                   ReadInteger(packet_, field));
    }
    void Mac(KirvexField field) const {
        TQ_LOG_FOR(origin_, "MAC: %s\n", ReadMac(packet_, field).text);
    }
    void Address(const char *label, KirvexField field) const {
        TQ_LOG_FOR(origin_, "%s: %s\n", label, ReadAddress(packet_, field).text);
    }
    // A text without a terminator reads on into the fields behind it, to the packet's end.
    void Text(const char *label, KirvexField field) const {
        TQ_LOG_FOR(origin_, "%s: %.*s\n", label,
                   static_cast<int>(kx::kSearchReplySize - field.offset),
                   reinterpret_cast<const char *>(packet_ + field.offset));
    }

  private:
    const uint8_t *packet_;
    MessageOrigin origin_;
};

}  // namespace

void KIRVEX_PrintHeader(const uint8_t *packet) {
    const FieldPrinter print(packet, __func__);
    print.Integer("identifier", kx::kIdentifier);
    print.Integer("sequence number", kx::kSequenceNumber);
    print.Integer("op_code", kx::kOperation);
    print.Mac(kx::kMac);
    print.Address("IP", kx::kAddress);
    print.Integer("req_mode", kx::kMode);
    print.Integer("message version", kx::kVersion);
    print.Integer("body_len", kx::kBodyLength);
}

static void PrintSearchReply(const uint8_t *packet, const char *function) {
    const FieldPrinter print(packet, function);
    const MessageOrigin origin{kSource, function};
    print.Text("Brand Name", kx::kBrandName);
    print.Text("Product Name", kx::kProductName);
    print.Text("Model Name", kx::kModelName);
    print.Text("Version", kx::kFirmware);
    print.Integer("Product Type", kx::kProductType);
    print.Integer("Product HW Specification", kx::kHardware);
    print.Mac(kx::kBodyMac);
    print.Text("Camera Name", kx::kCameraName.At(kx::kReplySettings));
    print.Address("IP", kx::kNewAddress.At(kx::kReplySettings));
    TQ_LOG_FOR(origin, "Web Port Number: %u\n",
               ReadInteger(packet, kx::kWebPort.At(kx::kReplySettings)));
    print.Integer("Reserved", kx::kReserved.At(kx::kReplySettings));
    print.Integer("SCDNS", kx::kScdns.At(kx::kReplySettings));
    print.Address("Netmask", kx::kNetmask.At(kx::kReplySettings));
    print.Address("Gateway", kx::kGateway.At(kx::kReplySettings));
    print.Address("pDNS", kx::kPrimaryDns.At(kx::kReplySettings));
    print.Address("sDNS", kx::kSecondaryDns.At(kx::kReplySettings));
    TQ_LOG_FOR(origin, "DHCP ON/OFF: %s\n",
               ReadInteger(packet, kx::kDhcp.At(kx::kReplySettings)) != 0 ? "ON" : "OFF");
    print.Text("Date Time", kx::kDateTime);
    // The one integer that readers of these lines know in wire order.
    TQ_LOG_FOR(origin, "TimeZone: 0x%02X%02X\n", packet[kx::kTimeZone.offset],
               packet[kx::kTimeZone.offset + 1]);
    print.Integer("Daylight Saving Time", kx::kDaylightSaving);
}

void KIRVEX_PrintReplyPkt(const uint8_t *packet) {
    const FieldPrinter print(packet, __func__);
    KIRVEX_PrintHeader(packet);
    switch (ReadInteger(packet, kx::kOperation)) {
        case kx::kDevSearch:
            PrintSearchReply(packet, __func__);
            break;
        case kx::kSetBasicInfo:
        case kx::kChangeIDPwd:
            print.Integer("Error Setting Num", kx::kErrorNumber);
            print.Integer("Operation Status", kx::kOperationStatus);
            print.Integer("Wait Timer", kx::kWaitTimer);
            print.Integer("Extension", kx::kExtension);
            break;
        case kx::kUserVerification:
            print.Integer("User Privilege", kx::kUserPrivilege);
            break;
        default:
            break;
    }
}
