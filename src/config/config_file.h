// The daemon's configuration file: lines of KEY="value".
#pragma once

struct TQ_Cfg {
    const char *pCfgFile;  // the file's path; belongs to the caller
    int netsetup;          // 1: network setup is allowed
    char netfile[80];
    char dnsfile[80];
    char netscript[80];
    char userscript[80];
    char pwdfile[80];
    // A value of 80 characters or more fills its field and ends in the byte behind it, which for
    // the last field is this one.
    char end;
};

// Reads the file named by `pCfgFile` into the record; what it does not name stays as it was.
// Returns 0, or -1 when the file can't be opened.
int TQ_ParsetCfg(TQ_Cfg *cfg);

namespace config {

inline constexpr char kDefaultConfigFile[] = "/etc/TQ.conf";

// The record as it is when no file has said otherwise.
[[nodiscard]] TQ_Cfg Defaults();

}  // namespace config
