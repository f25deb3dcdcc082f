// The usage text.
#pragma once

// Prints it to standard output.
void TQ_TestShowUsage(const char *programName);
