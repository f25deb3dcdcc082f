#include "kirvex/credentials.h"

#include <cstring>

bool kx::IsAdministrator(const char *name) {
    static constexpr char kPrefix[] = "admin";
    return strncmp(name, kPrefix, sizeof kPrefix - 1) == 0;
}
