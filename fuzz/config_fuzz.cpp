// The configuration file, read twice into one record.
#include <cstring>

#include "config/config_file.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static constexpr char kPath[] = "/tmp/TQ.conf";
    WriteFile(kPath, {reinterpret_cast<const char *>(data), size});
    TQ_Cfg cfg{};
    cfg.pCfgFile = kPath;
    Require(TQ_ParsetCfg(&cfg) == 0 && TQ_ParsetCfg(&cfg) == 0);
    Require((cfg.netsetup == 0 || cfg.netsetup == 1) && cfg.end == '\0');
    return 0;
}
