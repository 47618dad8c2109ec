// Gating: one mutex/condition pair per condition that can hold the worker back. The truth is
// always re-read from the adapters under the pair's mutex, so a release that comes after the
// test cannot be lost.
#include <errno.h>
#include <time.h>

#include "ai_recognition.h"
#include "aipq_log.h"
#include "mem_monitor.h"
#include "system_info_manager.h"

namespace {

void signalPair(pthread_mutex_t* mutex, pthread_cond_t* cond) {
    pthread_mutex_lock(mutex);
    pthread_cond_signal(cond);
    pthread_mutex_unlock(mutex);
}

}  // namespace

#define AIPQ_TIMED_WAIT(cond, mutex, seconds, result)                                     \
    do {                                                                                  \
        struct timespec ts;                                                               \
        clock_gettime(CLOCK_REALTIME, &ts);                                               \
        AM_LOGD("before add wait time, ts.tv_sec: %ld.\n", static_cast<long>(ts.tv_sec)); \
        ts.tv_sec += (seconds);                                                           \
        AM_LOGD("after add wait time, ts.tv_sec: %ld.\n", static_cast<long>(ts.tv_sec));  \
        (result) = 0;                                                                     \
        if (keepRunning()) {                                                              \
            (result) = osalCondTimedWait((cond), (mutex), &ts);                           \
        }                                                                                 \
        if ((result) == ETIMEDOUT) {                                                      \
            AM_LOGD("time out happend.\n");                                               \
        }                                                                                 \
    } while (0)

void AIRecognition::handleAIPQChanged(bool aipqEnable) {
    AM_LOGD("aipqEnable: %d.\n", aipqEnable);
    if (aipqEnable) {
        releaseAIPQEnableWait();
    }
}

void AIRecognition::handleStreamEncryptedChanged(bool encrypted) {
    AM_LOGD("encrtypted: %d.\n", encrypted);
    if (!encrypted) {
        releaseUnencryptedWait();
    }
}

void AIRecognition::handleMemoryState(MemoryState memoryState) {
    AM_LOGD("memoryState: %d.\n", memoryState);
    if (memoryState == MemoryStateEnough || memoryState == MemoryStateLimit) {
        releaseMemoryWait();
    }
}

void AIRecognition::handleVideoInfoHDRTypeChanged(VideoInfoHDRType videoInfoHDRType) {
    AM_LOGD("videoInfoHDRType: %d.\n", videoInfoHDRType);
    // Only a change away from the permitted type wakes the worker (to park it again); a change
    // to it is noticed when the running HDR wait times out.
    if (m_pSystemInfoManager == nullptr || !m_pSystemInfoManager->enableVideoInfoHDRType()) {
        releaseVideoInfoHDRTypeDisableWait();
    }
}

void AIRecognition::handleVideoGameModeChanged(VideoGameMode videoGameMode) {
    AM_LOGD("videoGameMode: %d.\n", videoGameMode);
    if (videoGameMode != VIDEO_GAME_MODE_ON) {
        releaseVideoGameModeDisableWait();
    }
}

void AIRecognition::handleTVPowerStateChanged(TVPowerState tvPowerState) {
    AM_LOGD("tvPowerState: %d.\n", tvPowerState);
    if (tvPowerState == TV_POWER_STATE_REPLAY && m_pSystemInfoManager != nullptr) {
        m_pSystemInfoManager->start();
    }
}

void AIRecognition::handleSourceAndAppChanged(SourceType sourceType) {
    AM_LOGD("sourceType: %d.\n", sourceType);
    if (m_pSystemInfoManager == nullptr || !m_pSystemInfoManager->enableSourceType()) {
        stop();
    }
}

void AIRecognition::handlePlayerStateChanged(PlayerState playerState) {
    AM_LOGD("playerState: %d.\n", playerState);
    if (enableAiRecognition()) {
        start();
    } else {
        stop();
    }
}

void AIRecognition::releaseAIPQEnableWait() {
    signalPair(&m_aipqEnableMutex, &m_aipqEnableCond);
}

void AIRecognition::releaseUnencryptedWait() {
    signalPair(&m_unencryptedMutex, &m_unencryptedCond);
}

void AIRecognition::releaseMemoryWait() {
    signalPair(&m_memoryMutex, &m_memoryCond);
}

void AIRecognition::releaseNextAIRecognitionWait() {
    signalPair(&m_nextRecognitionMutex, &m_nextRecognitionCond);
}

void AIRecognition::releaseVideoInfoHDRTypeDisableWait() {
    signalPair(&m_hdrTypeMutex, &m_hdrTypeCond);
}

void AIRecognition::releaseVideoGameModeDisableWait() {
    signalPair(&m_gameModeMutex, &m_gameModeCond);
}

// A stop (or the shutdown) sets its flag before it signals each pair under the pair's mutex;
// testing keepRunning() under that mutex right before waiting keeps one that slips in between the
// worker's loop test and its wait from being lost.

bool AIRecognition::waitAIPQEnable() {
    AM_ENTER();
    bool waited = false;
    pthread_mutex_lock(&m_aipqEnableMutex);
    bool open = m_pSystemInfoManager != nullptr && m_pSystemInfoManager->getAIPQEnable();
    if (!open) {
        resetConfig();
        if (keepRunning()) {
            pthread_cond_wait(&m_aipqEnableCond, &m_aipqEnableMutex);
        }
        waited = true;
    }
    pthread_mutex_unlock(&m_aipqEnableMutex);
    AM_RETURN_VAL(waited);
    return waited;
}

bool AIRecognition::waitVideoGameModeDisable() {
    AM_ENTER();
    bool waited = false;
    pthread_mutex_lock(&m_gameModeMutex);
    bool open = m_pSystemInfoManager == nullptr ||
                m_pSystemInfoManager->getVideoGameModeForced() != VIDEO_GAME_MODE_ON;
    if (!open) {
        resetConfig();
        if (keepRunning()) {
            pthread_cond_wait(&m_gameModeCond, &m_gameModeMutex);
        }
        waited = true;
    }
    pthread_mutex_unlock(&m_gameModeMutex);
    AM_RETURN_VAL(waited);
    return waited;
}

bool AIRecognition::waitVideoInfoHDRTypeDisable() {
    AM_ENTER();
    bool waited = false;
    pthread_mutex_lock(&m_hdrTypeMutex);
    bool open = m_pSystemInfoManager == nullptr ||
                m_pSystemInfoManager->getVideoInfoHDRTypeForced() == VIDEO_INFO_HDR_TYPE_ALLOWED;
    if (!open) {
        resetConfig();
        int rc = 0;
        AIPQ_TIMED_WAIT(&m_hdrTypeCond, &m_hdrTypeMutex, 30, rc);
        waited = true;
    }
    pthread_mutex_unlock(&m_hdrTypeMutex);
    AM_RETURN_VAL(waited);
    return waited;
}

bool AIRecognition::waitUnencrypted() {
    AM_ENTER();
    bool waited = false;
    pthread_mutex_lock(&m_unencryptedMutex);
    bool open = m_pSystemInfoManager != nullptr && !m_pSystemInfoManager->getStreamEncryptedForced();
    if (!open) {
        resetConfig();
        int rc = 0;
        AIPQ_TIMED_WAIT(&m_unencryptedCond, &m_unencryptedMutex, 60, rc);
        waited = true;
    }
    pthread_mutex_unlock(&m_unencryptedMutex);
    AM_RETURN_VAL(waited);
    return waited;
}

bool AIRecognition::waitMemoryEnough() {
    AM_ENTER();
    bool waited = false;
    pthread_mutex_lock(&m_memoryMutex);
    // A loaded model leaves less to spare, so less is demanded of what remains.
    int enough = 120;
    int limit = 90;
    if (m_pRecognitionManager != nullptr && m_pRecognitionManager->getModelLoadState()) {
        enough = 80;
        limit = 50;
    }
    if (m_pMemoryMonitor != nullptr) {
        m_pMemoryMonitor->setThreshold(enough, limit);
        m_pMemoryMonitor->updateMemoryState();
        updateLoopInteval();
        if (!m_pMemoryMonitor->enableMemoryState()) {
            resetConfig();
            int rc = 0;
            AIPQ_TIMED_WAIT(&m_memoryCond, &m_memoryMutex, 10, rc);
            waited = true;
        }
    }
    pthread_mutex_unlock(&m_memoryMutex);
    AM_RETURN_VAL(waited);
    return waited;
}

int AIRecognition::waitNextAIRecognition(int timeoutSeconds) {
    AM_LOGD("timeoutTime: %d.\n", timeoutSeconds);
    pthread_mutex_lock(&m_nextRecognitionMutex);
    int rc = 0;
    AIPQ_TIMED_WAIT(&m_nextRecognitionCond, &m_nextRecognitionMutex, timeoutSeconds, rc);
    pthread_mutex_unlock(&m_nextRecognitionMutex);
    AM_RETURN_VAL(rc);
    return rc;
}

bool AIRecognition::needContinue(bool& serviceEnvReloaded, bool& modelReloaded,
                                 korvane::ai::RecognitionManagerResult& result) {
    if (m_pRecognitionManager == nullptr) {
        AM_LOGE("m_pRecognitionManager is NULL.\n");
        return false;
    }
    if (result == korvane::ai::RECOGNITION_RESULT_SERVICE_NOT_INIT && !serviceEnvReloaded) {
        m_pRecognitionManager->loadAiServiceEnv();
        serviceEnvReloaded = true;
        return true;
    }
    if (result == korvane::ai::RECOGNITION_RESULT_MODEL_NOT_LOADED && !modelReloaded) {
        m_pRecognitionManager->loadModel();
        modelReloaded = true;
        return true;
    }
    return false;
}
