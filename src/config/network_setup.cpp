#include "config/network_setup.h"

#include <cstring>

#include "config/command.h"
#include "config/line_editor.h"
#include "config/stanza_editor.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr MessageOrigin kOrigin = TQ_ORIGIN("TQ_SetupNetwork");

namespace {

struct Setup {
    const TQ_Cfg *cfg;
    const UnitInfo *request;
    bool resolverFailed;
};

}  // namespace

static bool WriteDhcp(int out, const UnitInfo &request) {
    // "(none)" is what an unset host name reads.
    const bool named = strcmp(request.name, "(none)") != 0;
    if (!config::WriteDhcpStanza(out, request.dev, named ? request.name : nullptr)) {
        return false;
    }
    TQ_LOG_FOR(kOrigin, "\n==\niface %s inet dhcp\n  hostname %s\n\n==\n", request.dev,
               request.name);
    return true;
}

static bool WriteStatic(int out, const UnitInfo &request) {
    const config::StaticStanza stanza{request.dev, request.note, request.ip, request.netmask,
                                      request.gateway};
    const bool withGateway = config::HasUsableGateway(stanza, kOrigin);
    if (!config::WriteStaticStanza(out, stanza, withGateway)) {
        return false;
    }
    if (withGateway) {
        TQ_LOG_FOR(kOrigin,
                   "\n==\niface %s inet %s\n  address %s\n  netmask %s\n  gateway %s\n\n==\n",
                   stanza.device, stanza.method, stanza.address, stanza.netmask, stanza.gateway);
    } else {
        TQ_LOG_FOR(kOrigin, "\n==\niface %s inet %s\n  address %s\n  netmask %s\n\n==\n",
                   stanza.device, stanza.method, stanza.address, stanza.netmask);
    }
    return true;
}

static config::StanzaOutcome WriteStanza(int out, void *context) {
    Setup *setup = static_cast<Setup *>(context);
    const UnitInfo &request = *setup->request;
    if (strcmp(request.note, "dhcp") == 0) {
        return WriteDhcp(out, request) ? config::StanzaOutcome::kWritten
                                       : config::StanzaOutcome::kWriteFailed;
    }
    if (!WriteStatic(out, request)) {
        return config::StanzaOutcome::kWriteFailed;
    }
    // The interfaces file is still rewritten; only the commands are not run.
    if (config::ReplaceNameServer(setup->cfg->dnsfile, request.dns) < 1) {
        setup->resolverFailed = true;
    }
    return config::StanzaOutcome::kWritten;
}

int TQ_SetupNetwork(const TQ_Cfg *cfg, const UnitInfo *request) {
    if (!cfg || cfg->netfile[0] == '\0') {
        return -1;
    }
    Setup setup{cfg, request, false};
    const config::StanzaEdit edit{cfg->netfile, request->dev, WriteStanza, &setup, kOrigin, true};
    if (config::ReplaceStanza(edit) == -1 || setup.resolverFailed) {
        return -1;
    }
    if (cfg->netscript[0] != '\0') {
        TQ_LOG("Execute : pCfg->netscript = [%s]\n", cfg->netscript);
        COM_System(cfg->netscript, nullptr);
    }
    if (cfg->userscript[0] != '\0') {
        TQ_LOG("Execute : pCfg->userscript = [%s]\n", cfg->userscript);
        COM_System(cfg->userscript, nullptr);
    }
    return 0;
}
