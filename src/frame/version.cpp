#include "frame/version.h"

#include <cstdio>

#include "common/identification.h"

void COM_Version() {
    printf("%s\n%s\n", kCommonSourceId, kCommonHeaderId);
}

void TQ_Version() {
    printf("%s\n%s\n", "$Id: TQ.cpp 9187 2013-01-08 07:31:07Z tq $",
           "$Id: TQ.h 9050 2012-12-06 06:07:50Z tq $");
}
