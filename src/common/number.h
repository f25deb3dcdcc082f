// Decimal numbers out of texts that nobody has checked.
#pragma once

// The number that a text begins with, as atoi reads it: blanks, a sign, digits; 0 without digits.
// One that an int can't hold gives the int nearest to it, whatever the width of long.
int ParseInt(const char *text);
