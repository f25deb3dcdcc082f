// The identification lines that are printed at every start.
#pragma once

// Each prints its source line and its header line to standard output.
void COM_Version();
void TQ_Version();
