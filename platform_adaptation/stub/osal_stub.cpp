// Time and threads straight from POSIX. The daemon's waits all come through here, so a port that
// wants to stretch or stop time (tests, suspend) has one place to do it.
#include <errno.h>
#include <time.h>

#include "osal.h"

void osalInitOnce() {}

void osalGetUptime(OsalTime* time) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    time->seconds = ts.tv_sec;
    time->microseconds = static_cast<int32_t>(ts.tv_nsec / 1000);
}

int osalCompareTime(const OsalTime* a, const OsalTime* b) {
    if (a->seconds != b->seconds) {
        return a->seconds > b->seconds ? 1 : -1;
    }
    if (a->microseconds != b->microseconds) {
        return a->microseconds > b->microseconds ? 1 : -1;
    }
    return 0;
}

void osalSubtractTime(OsalTime* end, const OsalTime* start) {
    end->seconds -= start->seconds;
    end->microseconds -= start->microseconds;
    if (end->microseconds < 0) {
        end->microseconds += 1000000;
        end->seconds -= 1;
    }
}

int osalThreadAttrInit(OsalThreadAttr* attr) {
    return pthread_attr_init(attr);
}

int osalThreadAttrDestroy(OsalThreadAttr* attr) {
    return pthread_attr_destroy(attr);
}

int osalThreadCreate(OsalThread* thread, OsalThreadAttr* attr, OsalThreadEntry entry, void* userData,
                     const char* /*file*/, int /*line*/) {
    return pthread_create(thread, attr, entry, userData);
}

int osalCondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* deadline) {
    return pthread_cond_timedwait(cond, mutex, deadline);
}

void osalSleep(unsigned int seconds) {
    osalUsleep(seconds * 1000000u);
}

void osalUsleep(unsigned int microseconds) {
    struct timespec ts = {static_cast<time_t>(microseconds / 1000000u),
                          static_cast<long>(microseconds % 1000000u) * 1000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// No exit request here: the process ends by SIGTERM's default action. A port whose service
// manager asks its processes to stop makes that request sticky and wakes these waits with it.
bool osalWaitExitRequest(unsigned int milliseconds) {
    osalUsleep(milliseconds * 1000u);
    return false;
}
