#include "unique_lock.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "dbg_log.h"

#define PA_TAG "[Platform Adaptation]"

namespace {
// pthread calls return their error instead of setting errno; put it where the message reads it.
std::string errorText(const char* prefix, int rc) {
    errno = rc;
    return std::string(prefix) + strerror(errno);
}
}  // namespace

Mutex::Mutex() {
    int rc = pthread_mutex_init(&m_mutex, nullptr);
    if (rc != 0) {
        throw std::runtime_error(errorText("Mutex init error: ", rc));
    }
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&m_mutex);
}

UniqueLock::UniqueLock(pthread_mutex_t* mutex) : m_pMutex(mutex) {
    try {
        int rc = m_pMutex != nullptr ? pthread_mutex_lock(m_pMutex) : EINVAL;
        if (rc != 0) {
            throw std::runtime_error(errorText("Mutex lock error: ", rc));
        }
    } catch (const std::runtime_error& e) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "An runtime_error has been caught:%s.\n", e.what());
    }
}

UniqueLock::~UniqueLock() {
    try {
        if (m_pMutex != nullptr) {
            int rc = pthread_mutex_unlock(m_pMutex);
            if (rc != 0) {
                throw std::runtime_error(errorText("Mutex unlock error: ", rc));
            }
        }
    } catch (const std::runtime_error& e) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "An runtime_error has been caught:%s\n", e.what());
    }
}
