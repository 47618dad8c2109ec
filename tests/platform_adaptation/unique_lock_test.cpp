// The guard never lets a mutex failure escape: it logs and the guarded code runs on.
#include "unique_lock.h"

#include <gtest/gtest.h>

#include "log_capture.h"

namespace {

struct ErrorCheckMutex {
    ErrorCheckMutex() {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(&mutex, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    ~ErrorCheckMutex() { pthread_mutex_destroy(&mutex); }
    pthread_mutex_t mutex;
};

TEST(UniqueLock, HoldsTheMutexForItsScope) {
    ErrorCheckMutex m;
    {
        UniqueLock lock(&m.mutex);
        EXPECT_EQ(pthread_mutex_trylock(&m.mutex), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(&m.mutex), 0);
    pthread_mutex_unlock(&m.mutex);
}

TEST(UniqueLock, FailedLockIsLoggedAndTheCodeRunsOn) {
    LogCapture log;
    ErrorCheckMutex m;
    pthread_mutex_lock(&m.mutex);
    bool ran = false;
    {
        UniqueLock lock(&m.mutex);  // relocking an error-checking mutex fails with EDEADLK
        ran = true;
    }
    EXPECT_TRUE(ran);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("unique_lock.cpp:"), std::string::npos);
    EXPECT_NE(lines[0].find(":UniqueLock(): [Platform Adaptation] An runtime_error has been caught:"
                            "Mutex lock error: Resource deadlock avoided.\n"),
              std::string::npos)
        << lines[0];
}

TEST(UniqueLock, FailedUnlockIsLoggedWithoutTheFullStop) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the deliberate unlock by a non-owner is itself a ThreadSanitizer report";
#endif
    LogCapture log;
    ErrorCheckMutex m;
    {
        UniqueLock lock(&m.mutex);
        pthread_mutex_unlock(&m.mutex);  // the guard's own unlock then fails with EPERM
    }
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(":~UniqueLock(): [Platform Adaptation] An runtime_error has been caught:"
                            "Mutex unlock error: Operation not permitted\n"),
              std::string::npos)
        << lines[0];
}

TEST(UniqueLock, NullMutexIsLoggedNotDereferenced) {
    LogCapture log;
    { UniqueLock lock(static_cast<pthread_mutex_t*>(nullptr)); }
    EXPECT_EQ(log.count("Mutex lock error: "), 1);
    EXPECT_EQ(log.count("Mutex unlock error: "), 0);
}

TEST(MutexWrapper, GuardsLikeAPlainMutex) {
    Mutex m;
    {
        UniqueLock lock(m);
        EXPECT_EQ(pthread_mutex_trylock(m.get()), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(m.get()), 0);
    pthread_mutex_unlock(m.get());
}

}  // namespace
