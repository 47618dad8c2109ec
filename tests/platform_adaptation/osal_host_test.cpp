// Tests shorten the daemon's 5 to 60 s waits with the time scale: at scale N a wait takes 1/N.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "host_platform.h"
#include "osal.h"

namespace {

TEST(OsalTimeScale, TimedWaitRunsNTimesFaster) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    host::setTimeScale(50.0);
    const auto start = std::chrono::steady_clock::now();
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 5;  // 100 ms at scale 50
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(osalCondTimedWait(&cond, &mutex, &deadline), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    host::setTimeScale(1.0);
    EXPECT_GE(ms, 60.0);
    EXPECT_LT(ms, 2500.0);  // unscaled it would be 5000
}

}  // namespace
