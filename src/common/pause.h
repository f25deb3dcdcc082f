// Timed pauses.
#pragma once

#include <sys/time.h>

#include <ctime>

// *result = later - earlier, with microseconds below one second where `later` has them so. Returns
// 1 when the difference is negative, else 0. Changes *earlier.
int COM_DiffTimeval(timeval *result, timeval *later, timeval *earlier);

// Sleeps for `request`; a sleep that a signal cuts short is made up in steps of 0.1 ms, at most
// `retryLimit` of them. Returns the number of extra sleeps.
int COM_TakeABreak(timespec request, int retryLimit);
