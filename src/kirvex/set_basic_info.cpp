#include "kirvex/set_basic_info.h"

#include <cstdio>
#include <cstring>

#include "config/command.h"
#include "config/line_editor.h"
#include "config/process.h"
#include "config/stanza_editor.h"
#include "kirvex/account.h"
#include "kirvex/endpoint.h"
#include "kirvex/search.h"
#include "kirvex/web_session.h"

static constexpr char kSource[] = "KIRVEX";
static constexpr char kResolverFile[] = "/etc/resolv.conf";

static const char *CameraName(const uint8_t *settings) {
    return reinterpret_cast<const char *>(settings + kx::kCameraName.offset);
}

static bool WantsDhcp(const uint8_t *settings) {
    return ReadInteger(settings, kx::kDhcp) != 0;
}

namespace {

struct NewStanza {
    const char *device;
    const uint8_t *settings;
    MessageOrigin origin;
};

}  // namespace

static StanzaOutcome WriteStatic(int out, const NewStanza &wanted) {
    const AddressText address = ReadAddress(wanted.settings, kx::kNewAddress);
    const AddressText netmask = ReadAddress(wanted.settings, kx::kNetmask);
    const AddressText gateway = ReadAddress(wanted.settings, kx::kGateway);
    const StaticStanza stanza{wanted.device, "static", address.text, netmask.text, gateway.text};
    if (!WriteStaticStanza(out, stanza, HasUsableGateway(stanza, wanted.origin))) {
        return StanzaOutcome::kWriteFailed;
    }
    // A resolver file that can't be edited does not matter; one without a name server does.
    const AddressText server = ReadAddress(wanted.settings, kx::kPrimaryDns);
    return ReplaceNameServer(kResolverFile, server.text) == 0 ? StanzaOutcome::kRefused
                                                              : StanzaOutcome::kWritten;
}

static StanzaOutcome WriteWanted(int out, void *context) {
    const NewStanza &wanted = *static_cast<const NewStanza *>(context);
    if (!WantsDhcp(wanted.settings)) {
        return WriteStatic(out, wanted);
    }
    const bool named = strncmp(CameraName(wanted.settings), "(none)", kx::kCameraName.size) != 0;
    return WriteDhcpStanza(out, wanted.device, named ? kKirvexModel : nullptr)
               ? StanzaOutcome::kWritten
               : StanzaOutcome::kWriteFailed;
}

int KIRVEX_NetWorkSetup(const char *device, const uint8_t *settings) {
    NewStanza wanted{device, settings, {kSource, __func__}};
    return ReplaceStanza({kKirvexInterfaces, device, WriteWanted, &wanted, wanted.origin, false});
}

// Whether the name that a request carries is this unit's, or a leading part of it.
static bool NamesThisModel(const uint8_t *settings) {
    const char *name = CameraName(settings);
    return strncmp(kKirvexModel, name, strnlen(name, kx::kCameraName.size)) == 0;
}

// Logs in, writes the settings and logs out again. Returns whether they were written.
static bool Apply(const char *device, const WebAccount &account, const uint8_t *settings,
                  KirvexReply &reply, const MessageOrigin &origin) {
    const WebServerPort port = ReadWebServerPort();
    char sessionId[kSessionIdSize] = {};
    bool written = false;
    if (KIRVEX_AppwebLogin(kWebServerHost, port.text, account, sessionId, sizeof sessionId) == -1) {
        reply.Set(kx::kMode, kx::kFailure);
    } else if (!NamesThisModel(settings)) {
        reply.Set(kx::kMode, kx::kFailure);
        reply.Set(kx::kErrorNumber, kx::kErrorCameraName);
    } else if (KIRVEX_NetWorkSetup(device, settings) == 0) {
        // Tools tell a setup that failed by this status alone: its return code is 0 too.
        reply.Set(kx::kOperationStatus, kx::kStatusRestarting);
        reply.Set(kx::kWaitTimer, kx::kWaitSeconds);
        written = true;
    }
    ReleaseWebSession(port.text, account, sessionId, origin);
    return written;
}

int KIRVEX_Reply_SetBasicInfo(const char *device, int sock, const sockaddr_in &sender,
                              const uint8_t *request) {
    const MessageOrigin origin{kSource, __func__};
    KirvexReply reply = StartReply(device, request, kx::kStatusReplySize);
    const DecodedCredentials<2> credentials(request);
    const WebAccount account{credentials[0], credentials[1]};
    const uint8_t *settings = request + kx::kRequestSettings;
    bool written = false;
    if (IsAdministrator(account.name)) {
        written = Apply(device, account, settings, reply, origin);
    } else {
        reply.Set(kx::kMode, kx::kFailure);
    }
    // The reply leaves from the old address, before the network goes down.
    if (reply.Send(sock, sender, origin) == -1 || !written) {
        return -1;
    }
    char command[256];
    snprintf(command, sizeof command, "/etc/init.d/networking restart %s", device);
    if (!WantsDhcp(settings)) {
        COM_KillProcbyName("udhcpc", device, nullptr);
    }
    COM_System(command, nullptr);
    return 0;
}
