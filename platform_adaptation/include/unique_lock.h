#ifndef PLATFORM_ADAPTATION_UNIQUE_LOCK_H
#define PLATFORM_ADAPTATION_UNIQUE_LOCK_H

#include <pthread.h>

// A pthread mutex whose initialisation failure throws std::runtime_error("Mutex init error: ...").
class Mutex {
public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    pthread_mutex_t* get() { return &m_mutex; }

private:
    pthread_mutex_t m_mutex;
};

// Scoped guard. Lock and unlock failures are logged and swallowed: the guarded code runs on
// as if the lock were held, which keeps a broken mutex from taking the daemon down.
class UniqueLock {
public:
    explicit UniqueLock(pthread_mutex_t* mutex);
    explicit UniqueLock(Mutex& mutex) : UniqueLock(mutex.get()) {}
    ~UniqueLock();
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

private:
    pthread_mutex_t* m_pMutex;
};

#endif
