#include "kirvex/set_basic_info.h"

#include <cstdio>
#include <cstring>

#include "config/command.h"
#include "config/line_editor.h"
#include "config/process.h"
#include "config/stanza_editor.h"
#include "kirvex/credentials.h"
#include "kirvex/endpoint.h"
#include "kirvex/own_unit.h"
#include "kirvex/web_session.h"

static constexpr char kSource[] = "KIRVEX";
static constexpr char kResolverFile[] = "/etc/resolv.conf";

static const char *CameraName(kx::SettingsBlock settings) {
    return reinterpret_cast<const char *>(settings.data() + kx::kCameraName.offset);
}

static bool WantsDhcp(kx::SettingsBlock settings) {
    return kx::ReadInteger(settings, kx::kDhcp) != 0;
}

namespace {

struct NewStanza {
    const char *device;
    kx::SettingsBlock settings;
    MessageOrigin origin;
};

}  // namespace

static config::StanzaOutcome WriteStatic(int out, const NewStanza &wanted) {
    const kx::AddressText address = kx::ReadAddress(wanted.settings, kx::kNewAddress);
    const kx::AddressText netmask = kx::ReadAddress(wanted.settings, kx::kNetmask);
    const kx::AddressText gateway = kx::ReadAddress(wanted.settings, kx::kGateway);
    const config::StaticStanza stanza{wanted.device, "static", address.text, netmask.text,
                                      gateway.text};
    if (!config::WriteStaticStanza(out, stanza, config::HasUsableGateway(stanza, wanted.origin))) {
        return config::StanzaOutcome::kWriteFailed;
    }
    // A resolver file that can't be edited does not matter; one without a name server does.
    const kx::AddressText server = kx::ReadAddress(wanted.settings, kx::kPrimaryDns);
    return config::ReplaceNameServer(kResolverFile, server.text) == 0
               ? config::StanzaOutcome::kRefused
               : config::StanzaOutcome::kWritten;
}

static config::StanzaOutcome WriteWanted(int out, void *context) {
    const NewStanza &wanted = *static_cast<const NewStanza *>(context);
    if (!WantsDhcp(wanted.settings)) {
        return WriteStatic(out, wanted);
    }
    const bool named = strncmp(CameraName(wanted.settings), "(none)", kx::kCameraName.size) != 0;
    return config::WriteDhcpStanza(out, wanted.device, named ? kx::kOwnModel : nullptr)
               ? config::StanzaOutcome::kWritten
               : config::StanzaOutcome::kWriteFailed;
}

int KIRVEX_NetWorkSetup(const char *device, kx::SettingsBlock settings) {
    NewStanza wanted{device, settings, TQ_ORIGIN(__func__)};
    return config::ReplaceStanza(
        {kx::kOwnInterfaces, device, WriteWanted, &wanted, wanted.origin, false});
}

// Whether the name that a request carries is this unit's, or a leading part of it.
static bool NamesThisModel(kx::SettingsBlock settings) {
    const char *name = CameraName(settings);
    return strncmp(kx::kOwnModel, name, strnlen(name, kx::kCameraName.size)) == 0;
}

// Logs in, writes the settings and logs out again. Returns whether they were written.
static bool Apply(const char *device, const kx::Account &account, kx::SettingsBlock settings,
                  kx::Reply &reply, MessageOrigin origin) {
    const kx::WebPort port = kx::ReadWebPort();
    char sessionId[kx::kSessionIdSize] = {};
    bool written = false;
    if (KIRVEX_AppwebLogin(kx::kWebServerHost, port.text, account, sessionId, sizeof sessionId) ==
        -1) {
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
    kx::ReleaseWebSession(port.text, account, sessionId, origin);
    return written;
}

int KIRVEX_Reply_SetBasicInfo(const char *device, int sock, const sockaddr_in &sender,
                              kx::Request request) {
    const MessageOrigin origin = TQ_ORIGIN(__func__);
    kx::Reply reply = kx::StartReply(device, sock, request, kx::kStatusReplySize);
    const kx::DecodedCredentials<2> credentials(request);
    const kx::Account account = credentials.At(0);
    const kx::SettingsBlock settings = kx::SettingsOf(request);
    bool written = false;
    if (kx::IsAdministrator(account.name)) {
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
