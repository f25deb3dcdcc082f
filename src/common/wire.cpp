#include "common/wire.h"
