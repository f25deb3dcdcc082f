#include "kirvex/print.h"

#include "frame/message.h"

static constexpr char kSource[] = "KIRVEX";

namespace {

// Prints single fields of a packet in the name of a public function.
class FieldPrinter {
  public:
    FieldPrinter(std::span<const uint8_t> packet, MessageOrigin origin)
        : packet_(packet), origin_(origin) {}

    void Integer(const char *label, kx::Field field) const {
        TQ_LOG_FOR(origin_, "%s: 0x%0*X\n", label, static_cast<int>(2 * field.size),
                   kx::ReadInteger(packet_, field));
    }
    void Mac(kx::Field field) const {
        TQ_LOG_FOR(origin_, "MAC: %s\n", kx::ReadMac(packet_, field).text);
    }
    void Address(const char *label, kx::Field field) const {
        TQ_LOG_FOR(origin_, "%s: %s\n", label, kx::ReadAddress(packet_, field).text);
    }
    // A text without a terminator reads on into the fields behind it, to the packet's end.
    void Text(const char *label, kx::Field field) const {
        TQ_LOG_FOR(origin_, "%s: %.*s\n", label, static_cast<int>(packet_.size() - field.offset),
                   reinterpret_cast<const char *>(packet_.data() + field.offset));
    }

  private:
    std::span<const uint8_t> packet_;
    MessageOrigin origin_;
};

}  // namespace

void KIRVEX_PrintHeader(std::span<const uint8_t, kx::kHeaderSize> packet) {
    const FieldPrinter print(packet, TQ_ORIGIN(__func__));
    print.Integer("identifier", kx::kIdentifier);
    print.Integer("sequence number", kx::kSequenceNumber);
    print.Integer("op_code", kx::kOperation);
    print.Mac(kx::kMac);
    print.Address("IP", kx::kAddress);
    print.Integer("req_mode", kx::kMode);
    print.Integer("message version", kx::kVersion);
    print.Integer("body_len", kx::kBodyLength);
}

static void PrintSearchReply(kx::AnyReply packet, MessageOrigin origin) {
    const FieldPrinter print(packet, origin);
    print.Text("Brand Name", kx::kBrandName);
    print.Text("Product Name", kx::kProductName);
    print.Text("Model Name", kx::kModelName);
    print.Text("Version", kx::kFirmware);
    print.Integer("Product Type", kx::kProductType);
    print.Integer("Product HW Specification", kx::kHardware);
    print.Mac(kx::kBodyMac);
    print.Text("Camera Name", kx::kCameraName.In(kx::kReplySettings));
    print.Address("IP", kx::kNewAddress.In(kx::kReplySettings));
    TQ_LOG_FOR(origin, "Web Port Number: %u\n",
               kx::ReadInteger(packet, kx::kWebPort.In(kx::kReplySettings)));
    print.Integer("Reserved", kx::kReserved.In(kx::kReplySettings));
    print.Integer("SCDNS", kx::kScdns.In(kx::kReplySettings));
    print.Address("Netmask", kx::kNetmask.In(kx::kReplySettings));
    print.Address("Gateway", kx::kGateway.In(kx::kReplySettings));
    print.Address("pDNS", kx::kPrimaryDns.In(kx::kReplySettings));
    print.Address("sDNS", kx::kSecondaryDns.In(kx::kReplySettings));
    TQ_LOG_FOR(origin, "DHCP ON/OFF: %s\n",
               kx::ReadInteger(packet, kx::kDhcp.In(kx::kReplySettings)) != 0 ? "ON" : "OFF");
    print.Text("Date Time", kx::kDateTime);
    // The one integer that readers of these lines know in wire order.
    TQ_LOG_FOR(origin, "TimeZone: 0x%02X%02X\n", packet[kx::kTimeZone.offset],
               packet[kx::kTimeZone.offset + 1]);
    print.Integer("Daylight Saving Time", kx::kDaylightSaving);
}

void KIRVEX_PrintReplyPkt(kx::AnyReply packet) {
    const FieldPrinter print(packet, TQ_ORIGIN(__func__));
    KIRVEX_PrintHeader(packet.first<kx::kHeaderSize>());
    switch (kx::ReadInteger(packet, kx::kOperation)) {
        case kx::kDevSearch:
            PrintSearchReply(packet, TQ_ORIGIN(__func__));
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
