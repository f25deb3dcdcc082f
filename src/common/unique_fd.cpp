#include "common/unique_fd.h"

#include <unistd.h>

void COM_CloseFd(int *descriptor) {
    if (*descriptor >= 0) {
        close(*descriptor);
        *descriptor = -1;
    }
}
