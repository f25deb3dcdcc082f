#include "frame/usage.h"

#include <cstdio>

#include "config/config_file.h"
#include "config/process.h"
#include "config/watchdog.h"

static constexpr char kRule[] = "=============================================================";

void TQ_TestShowUsage(const char *programName) {
    printf("%s\n", kRule);
    printf("Usage : %s <options>\n", programName);
    printf("%s\n", kRule);
    printf("\t -D : Daemon Mode.\n");
    printf("\t      If not set, client mode will be used\n");
    printf("\t -W : Watchdog Mode.\n");
    printf("\t      Only valid when -D is set. Will watch [%s] folder\n", config::kWatchdogFolder);
    printf("\t -P : Pid File Name(default : %s)\n", config::kDefaultPidFile);
    printf("\t      - Only useful on daemon mode\n");
    printf("\t -I : Specific Outgoing Interface. Ex. eth0, eth2, rausb0\n");
    printf("\t      - If not set, every available interface will be used\n");
    printf("\t -F : Project Filter(case independent). Ex. Server, NAS\n");
    printf("\t      - Only proj name matched the filter will be recognized\n");
    printf("\t -C : Config File for TQ server\n");
    printf("\t      - Default Path would be %s\n", config::kDefaultConfigFile);
    printf("%s\n", kRule);
}
