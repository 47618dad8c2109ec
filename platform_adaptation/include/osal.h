#ifndef PLATFORM_ADAPTATION_OSAL_H
#define PLATFORM_ADAPTATION_OSAL_H

#include <pthread.h>
#include <time.h>

#include <cstdint>

// Monotonic time value: whole seconds, then microseconds.
struct OsalTime {
    int64_t seconds;
    int32_t microseconds;
};

typedef pthread_t OsalThread;
typedef pthread_attr_t OsalThreadAttr;
typedef void* (*OsalThreadEntry)(void* userData);

void osalInitOnce();
void osalGetUptime(OsalTime* time);
// 1 when a is later than b, -1 when earlier, 0 when equal.
int osalCompareTime(const OsalTime* a, const OsalTime* b);
// end := end - start.
void osalSubtractTime(OsalTime* end, const OsalTime* start);

int osalThreadAttrInit(OsalThreadAttr* attr);
int osalThreadAttrDestroy(OsalThreadAttr* attr);
// Returns 0 on success; file and line are recorded for diagnostics only.
int osalThreadCreate(OsalThread* thread, OsalThreadAttr* attr, OsalThreadEntry entry, void* userData,
                     const char* file, int line);

// Time seam: every wait of the daemon goes through these, so a platform (or a test) can decide
// how long a second is. The deadline is an absolute CLOCK_REALTIME time as pthread_cond_timedwait
// takes it; the result is 0 or ETIMEDOUT.
int osalCondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* deadline);
void osalSleep(unsigned int seconds);
void osalUsleep(unsigned int microseconds);

// Exit request: the platform asking the process to end (the host's SIGTERM and SIGINT, caught from
// osalInitOnce on). Once made it stays; frame::Process::run() returns on it. Waits up to
// `milliseconds` (0: only tests) and returns whether it has been made, so that the daemon's own long
// waits can end early. A platform that has no such request sleeps and returns false.
bool osalWaitExitRequest(unsigned int milliseconds);

#endif
