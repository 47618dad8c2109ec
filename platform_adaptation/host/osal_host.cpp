#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "host_platform.h"
#include "osal.h"

namespace {

constexpr int64_t kNsPerSec = 1000000000LL;

int64_t nowNs(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec;
}

// The virtual clock runs `scale` times faster than the real one from the moment the scale was set.
struct TimeBase {
    std::mutex mutex;
    double scale = 1.0;
    int64_t realAnchorNs = 0;
    int64_t virtualAnchorNs = 0;
};

TimeBase& timeBase() {
    static TimeBase* base = [] {
        auto* b = new TimeBase;
        b->realAnchorNs = b->virtualAnchorNs = nowNs(CLOCK_MONOTONIC);
        if (const char* env = std::getenv("AIPQ_TIME_SCALE")) {
            double s = std::strtod(env, nullptr);
            if (s > 0.0 && std::isfinite(s)) {
                b->scale = s;
            }
        }
        return b;
    }();
    return *base;
}

int64_t virtualMonotonicNs() {
    TimeBase& b = timeBase();
    std::lock_guard<std::mutex> lock(b.mutex);
    return b.virtualAnchorNs + static_cast<int64_t>((nowNs(CLOCK_MONOTONIC) - b.realAnchorNs) * b.scale);
}

int64_t scaledNs(int64_t ns) {
    double s = host::timeScale();
    return s == 1.0 ? ns : static_cast<int64_t>(ns / s);
}

void sleepNs(int64_t ns) {
    if (ns <= 0) {
        return;
    }
    struct timespec ts;
    ts.tv_sec = ns / kNsPerSec;
    ts.tv_nsec = ns % kNsPerSec;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// The exit request. The signal handler only sets the flag and makes the eventfd readable, both
// safe in a handler; the descriptor is never read, so once written it wakes every later wait too.
struct ExitRequest {
    std::atomic<bool> requested{false};
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

ExitRequest& exitRequest() {
    static ExitRequest* request = new ExitRequest;  // never destroyed: a handler may run at exit
    return *request;
}

std::atomic<ExitRequest*> g_signalledRequest{nullptr};

void markExitRequested(ExitRequest& request) {
    request.requested = true;
    uint64_t one = 1;
    ssize_t written = write(request.fd, &one, sizeof(one));
    (void)written;
}

void onExitSignal(int sig) {
    int savedErrno = errno;
    ExitRequest* request = g_signalledRequest.load();
    if (request != nullptr) {
        // A second Ctrl-C ends at once: tools that never wait for the request stay interruptible.
        if (sig == SIGINT && request->requested) {
            signal(SIGINT, SIG_DFL);
            raise(SIGINT);
        }
        markExitRequested(*request);
    }
    errno = savedErrno;
}

}  // namespace

namespace host {

void requestProcessExit() {
    markExitRequested(exitRequest());
}

void setTimeScale(double scale) {
    if (!(scale > 0.0) || !std::isfinite(scale)) {
        return;
    }
    TimeBase& b = timeBase();
    std::lock_guard<std::mutex> lock(b.mutex);
    int64_t realNow = nowNs(CLOCK_MONOTONIC);
    b.virtualAnchorNs += static_cast<int64_t>((realNow - b.realAnchorNs) * b.scale);
    b.realAnchorNs = realNow;
    b.scale = scale;
}

double timeScale() {
    TimeBase& b = timeBase();
    std::lock_guard<std::mutex> lock(b.mutex);
    return b.scale;
}

}  // namespace host

void osalInitOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        (void)timeBase();
        // From the very start, so that no wait of the daemon is ended by the default action.
        g_signalledRequest = &exitRequest();
        struct sigaction action;
        std::memset(&action, 0, sizeof(action));
        action.sa_handler = onExitSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGTERM, &action, nullptr);
        sigaction(SIGINT, &action, nullptr);
    });
}

void osalGetUptime(OsalTime* time) {
    if (time == nullptr) {
        return;
    }
    int64_t ns = virtualMonotonicNs();
    time->seconds = ns / kNsPerSec;
    time->microseconds = static_cast<int32_t>((ns % kNsPerSec) / 1000);
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
    int64_t seconds = end->seconds - start->seconds;
    int32_t micros = end->microseconds - start->microseconds;
    if (micros < 0) {
        micros += 1000000;
        seconds -= 1;
    }
    end->seconds = seconds;
    end->microseconds = micros;
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
    double scale = host::timeScale();
    if (scale == 1.0) {
        return pthread_cond_timedwait(cond, mutex, deadline);
    }
    // Keep the caller's absolute deadline semantics, only shorten the distance to it.
    int64_t now = nowNs(CLOCK_REALTIME);
    int64_t wanted = static_cast<int64_t>(deadline->tv_sec) * kNsPerSec + deadline->tv_nsec;
    int64_t target = now + scaledNs(wanted - now);
    struct timespec scaled;
    scaled.tv_sec = target / kNsPerSec;
    scaled.tv_nsec = target % kNsPerSec;
    return pthread_cond_timedwait(cond, mutex, &scaled);
}

void osalSleep(unsigned int seconds) {
    sleepNs(scaledNs(static_cast<int64_t>(seconds) * kNsPerSec));
}

void osalUsleep(unsigned int microseconds) {
    sleepNs(scaledNs(static_cast<int64_t>(microseconds) * 1000));
}

bool osalWaitExitRequest(unsigned int milliseconds) {
    ExitRequest& request = exitRequest();
    if (milliseconds == 0 || request.requested) {
        return request.requested;
    }
    const int64_t deadline = nowNs(CLOCK_MONOTONIC) + scaledNs(static_cast<int64_t>(milliseconds) * 1000000);
    struct pollfd readable = {request.fd, POLLIN, 0};
    for (;;) {
        if (request.requested) {
            return true;
        }
        int64_t left = deadline - nowNs(CLOCK_MONOTONIC);
        if (left <= 0) {
            return false;
        }
        struct timespec ts;
        ts.tv_sec = left / kNsPerSec;
        ts.tv_nsec = left % kNsPerSec;
        ppoll(&readable, 1, &ts, nullptr);
    }
}
