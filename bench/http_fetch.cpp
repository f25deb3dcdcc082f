// Fetches a page again and again and prints what each took in milliseconds, then its size and the
// largest memory that the process ever had.
//     http_fetch URL COUNT [USER PASSWORD]
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/owners.h"
#include "common/text.h"
#include "net/http.h"
#include "net/http_auth.h"

static double Milliseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        return 2;
    }
    int size = 0;
    for (int i = atoi(argv[2]); i > 0; --i) {
        const double start = Milliseconds();
        HttpAuthInfo auth{};
        if (argc > 4) {
            auth.method = COM_GetHttpAuthMethod(argv[1]);
            CopyText(auth.username, argv[3]);
            CopyText(auth.password, argv[4]);
        }
        char *page = nullptr;
        size = COM_GetHttpContent(argv[1], &page, &auth);
        const HeapBlock<char> owner(page);
        printf("%.2f ", Milliseconds() - start);
    }
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    printf("\n%d %ld\n", size, usage.ru_maxrss);
    return 0;
}
