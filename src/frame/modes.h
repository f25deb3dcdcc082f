// What the program does once its options are read: one discovery, or serving for ever.
#pragma once

#include "config/config_file.h"

// Discovers the units on the LAN and prints them. Both texts may be null. Returns the number of
// units, below 1 when there are none.
int TQ_Client(const char *device, const char *filter);

// Serves the protocol of the board's brand. Both texts may be null. Returns only when the KIRVEX
// server does, with its result.
int TQ_Server(const char *pidFile, const char *device, TQ_Cfg *cfg);

namespace frame {

// The brand number that a file in the format of "/proc/cpuinfo" tells: the last "brandid" line
// counts. 0 when there is none or, with a message, when the file can't be opened.
unsigned ReadBrand(const char *path);

}  // namespace frame
