#include "config/config_file.h"

#include <fcntl.h>
#include <strings.h>

#include <cstring>

#include "common/text.h"
#include "common/text_file.h"
#include "frame/message.h"

static constexpr char kSource[] = "TQ";
static constexpr char kNetSetupKey[] = "NETSETUP";

TQ_Cfg config::Defaults() {
    TQ_Cfg cfg{};
    cfg.pCfgFile = kDefaultConfigFile;
    CopyText(cfg.netfile, "/etc/network/interfaces");
    CopyText(cfg.dnsfile, "/etc/resolv.conf");
    CopyText(cfg.netscript, "/etc/init.d/networking restart");
    return cfg;
}

struct TextSetting {
    char key[11];
    char (TQ_Cfg::*field)[80];
};

static constexpr TextSetting kTextSettings[] = {
    {"NETFILE", &TQ_Cfg::netfile},     {"DNSFILE", &TQ_Cfg::dnsfile},
    {"NETSCRIPT", &TQ_Cfg::netscript}, {"USERSCRIPT", &TQ_Cfg::userscript},
    {"PWDFILE", &TQ_Cfg::pwdfile},
};

static bool BeginsWithKey(const char *line, const char *key) {
    return strncasecmp(line, key, strlen(key)) == 0;
}

static void ApplyLine(const char *line, TQ_Cfg *cfg, MessageOrigin origin) {
    if (BeginsWithKey(line, kNetSetupKey)) {
        if (COM_StrNCaseStr(line + strlen(kNetSetupKey), "YES")) {
            cfg->netsetup = 1;
            TQ_LOG_FOR(origin, "NETSETUP = YES\n");
        }
        return;
    }
    for (const TextSetting &setting : kTextSettings) {
        if (BeginsWithKey(line, setting.key)) {
            char *field = cfg->*setting.field;
            CopyQuotedValue(line, setting.key, field, sizeof(cfg->*setting.field), origin);
            TQ_LOG_FOR(origin, "%s = [%s]\n", setting.key, field);
            return;
        }
    }
}

int TQ_ParsetCfg(TQ_Cfg *cfg) {
    if (!cfg->pCfgFile) {
        return -1;
    }
    // Read once, at the start, and possibly from a pipe on purpose: one that is waited for.
    TextFile file{UniqueFd(open(cfg->pCfgFile, O_RDONLY | O_CLOEXEC))};
    if (!file) {
        TQ_LOG("fopen(%s) error : %m\n", cfg->pCfgFile);
        return -1;
    }
    TQ_LOG("pCfgFile = [%s]\n", cfg->pCfgFile);
    char line[128];
    while (file.ReadLine(line)) {
        ApplyLine(line, cfg, TQ_ORIGIN(__func__));
    }
    return 0;
}
