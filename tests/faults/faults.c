// Preloaded into TQ. The page behind /run/faults says, as four numbers, how many allocations go
// well until one fails (0: all do), how many seconds the wall clock is off, by what the waits for
// sockets are divided, and how often the clock was read.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { kLeft, kShift, kHaste, kClockReads, kNumbers };

static int32_t none[kNumbers] = {0, 0, 1, 0};
static volatile int32_t *control = none;

void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);

__attribute__((constructor)) static void MapControl(void) {
    const int file = open("/run/faults", O_RDWR | O_CLOEXEC);
    void *page = mmap(NULL, sizeof none, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    control = page == MAP_FAILED ? none : page;
    unsetenv("LD_PRELOAD");  // the commands that TQ runs are spared
}

static int Fails(void) {
    if (control[kLeft] == 0 || --control[kLeft] > 0) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

void *malloc(size_t size) {
    return Fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
    return Fails() ? NULL : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
    return Fails() ? NULL : __libc_realloc(block, size);
}

static struct timespec WrongNow(void) {
    struct timespec now;
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
    ++control[kClockReads];
    now.tv_sec += control[kShift];
    return now;
}

time_t time(time_t *now) {
    const time_t seconds = WrongNow().tv_sec;
    return now ? *now = seconds : seconds;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone) {
    (void)zone;
    const struct timespec wrong = WrongNow();
    now->tv_sec = wrong.tv_sec;
    now->tv_usec = wrong.tv_nsec / 1000;
    return 0;
}

int ppoll(struct pollfd *sockets, nfds_t count, const struct timespec *limit,
          const sigset_t *mask) {
    if (!limit) {
        return (int)syscall(SYS_ppoll, sockets, count, NULL, mask, 8);
    }
    const int64_t wait = (limit->tv_sec * INT64_C(1000000000) + limit->tv_nsec) / control[kHaste];
    struct timespec shorter = {(time_t)(wait / 1000000000), (long)(wait % 1000000000)};
    return (int)syscall(SYS_ppoll, sockets, count, &shorter, mask, 8);
}
