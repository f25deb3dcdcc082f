#include "frame/usage.h"

#include <cstdio>

#include "config/config_file.h"
#include "config/process.h"
#include "config/watchdog.h"

static constexpr char kRule[] = "=============================================================";
static constexpr char kUsage[] =
    "%s\n"
    "Usage : %s <options>\n"
    "%s\n"
    "\t -D : Daemon Mode.\n"
    "\t      If not set, client mode will be used\n"
    "\t -W : Watchdog Mode.\n"
    "\t      Only valid when -D is set. Will watch [%s] folder\n"
    "\t -P : Pid File Name(default : %s)\n"
    "\t      - Only useful on daemon mode\n"
    "\t -I : Specific Outgoing Interface. Ex. eth0, eth2, rausb0\n"
    "\t      - If not set, every available interface will be used\n"
    "\t -F : Project Filter(case independent). Ex. Server, NAS\n"
    "\t      - Only proj name matched the filter will be recognized\n"
    "\t -C : Config File for TQ server\n"
    "\t      - Default Path would be %s\n"
    "%s\n";

void TQ_TestShowUsage(const char *programName) {
    printf(kUsage, kRule, programName, kRule, config::kWatchdogFolder, config::kDefaultPidFile,
           config::kDefaultConfigFile, kRule);
}
