#include "common/identification.h"
