// A mutex failure must never take the daemon down: the guard logs it and the guarded code runs.
#include "unique_lock.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "log_capture.h"

namespace {

TEST(UniqueLock, HoldsTheMutexAndLogsLockAndUnlockFailuresInTheirFormats) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the deliberate unlock of a free mutex is itself a ThreadSanitizer report";
#endif
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attr);
    LogCapture log;
    bool ran = false;
    {
        UniqueLock lock(&mutex);
        EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
        UniqueLock relock(&mutex);  // EDEADLK; its unlock then releases the first guard's hold
        ran = true;
    }
    EXPECT_TRUE(ran);
    EXPECT_EQ(log.count(":UniqueLock(): [Platform Adaptation] An runtime_error has been caught:"
                        "Mutex lock error: Resource deadlock avoided.\n"),
              1);
    EXPECT_EQ(log.count(":~UniqueLock(): [Platform Adaptation] An runtime_error has been caught:"
                        "Mutex unlock error: Operation not permitted\n"),
              1)
        << "the first guard's unlock finds the mutex already free";
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attr);
}

}  // namespace
