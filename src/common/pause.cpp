#include "common/pause.h"

#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr long kMicrosecondsPerSecond = 1000000;
static constexpr long kRetrySleep = 100000;  // nanoseconds

int COM_DiffTimeval(timeval *result, timeval *later, timeval *earlier) {
    if (later->tv_usec < earlier->tv_usec) {
        const long seconds = (earlier->tv_usec - later->tv_usec) / kMicrosecondsPerSecond + 1;
        earlier->tv_usec -= kMicrosecondsPerSecond * seconds;
        earlier->tv_sec += seconds;
    }
    if (later->tv_usec - earlier->tv_usec > kMicrosecondsPerSecond) {
        const long seconds = (later->tv_usec - earlier->tv_usec) / kMicrosecondsPerSecond;
        earlier->tv_usec += kMicrosecondsPerSecond * seconds;
        earlier->tv_sec -= seconds;
    }
    result->tv_sec = later->tv_sec - earlier->tv_sec;
    result->tv_usec = later->tv_usec - earlier->tv_usec;
    return later->tv_sec < earlier->tv_sec ? 1 : 0;
}

int COM_TakeABreak(timespec request, int retryLimit) {
    const timeval wanted{request.tv_sec, request.tv_nsec / 1000};
    timeval start;
    gettimeofday(&start, nullptr);
    timespec sleep = request;
    int retries = 0;
    while (true) {
        nanosleep(&sleep, nullptr);
        sleep = {0, kRetrySleep};
        timeval now;
        gettimeofday(&now, nullptr);
        timeval elapsed;
        timeval from = start;
        COM_DiffTimeval(&elapsed, &now, &from);
        if (!timercmp(&elapsed, &wanted, <)) {
            break;
        }
        ++retries;
        if (retries >= retryLimit) {
            break;
        }
    }
    if (retries == retryLimit) {
        TQ_LOG_UNNAMED("Woops! timeout = %d\n", retries);
    }
    return retries;
}
