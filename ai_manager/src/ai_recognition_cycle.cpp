// The worker: gates, period, capture, classify, apply on change.
#include "ai_common.h"
#include "ai_recognition.h"
#include "aipq_log.h"
#include "mem_monitor.h"
#include "system_info_manager.h"
#include "system_setting_manager.h"

using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::TelvoAiPQPredict;

void AIRecognition::handleAIRecognition() {
    const int firstWaitTime = 2;
    AM_LOGD("firstWaitTime: %d.\n", firstWaitTime);
    OsalTime lastTime;
    osalGetUptime(&lastTime);
    lastTime.seconds -= firstWaitTime;

    while (keepRunning()) {
        if (waitAIPQEnable()) {
            AM_LOGD("wait AIPQ enable.\n");
            continue;
        }
        if (waitVideoGameModeDisable()) {
            AM_LOGD("wait video game mode disable.\n");
            continue;
        }
        if (waitVideoInfoHDRTypeDisable()) {
            AM_LOGD("wait video info HDR type disable.\n");
            continue;
        }
        if (waitUnencrypted()) {
            AM_LOGD("wait unecrypted stream.\n");
            continue;
        }
        // Last, because it also refreshes the period.
        if (waitMemoryEnough()) {
            AM_LOGD("wait memory enough process.\n");
            continue;
        }
        OsalTime now;
        osalGetUptime(&now);
        int waitTime = getNextAiRecognitionTime(lastTime, now);
        if (waitTime > 0) {
            AM_LOGT("do not enable next ai recognition, continue to wait. waitTime: %d\n", waitTime);
            waitNextAIRecognition(waitTime);
            continue;
        }
        AM_LOGD("start AI Recognition.\n");
        recognitionProcess();
        // The period runs from the end of one cycle to the start of the next.
        osalGetUptime(&lastTime);
    }

    if (m_pRecognitionManager != nullptr) {
        m_pRecognitionManager->releaseModel();
    }
}

int AIRecognition::getNextAiRecognitionTime(OsalTime& startTime, OsalTime& endTime) {
    if (m_loopInteval < 0) {
        AM_LOGD("m_loopInteval is less than 0.\n");
        return 5;
    }
    AM_LOGD("startTime: %lld(s).%d(micro seconds)\n", static_cast<long long>(startTime.seconds),
            startTime.microseconds);
    AM_LOGD("endTime: %lld(s).%d(micro seconds)\n", static_cast<long long>(endTime.seconds),
            endTime.microseconds);
    if (osalCompareTime(&startTime, &endTime) == 1) {
        AM_LOGD("startTime > endTime.\n");
        return 0;
    }
    osalSubtractTime(&endTime, &startTime);
    AM_LOGD("Elapsed Time: %lld(s): %d(micro seconds).\n", static_cast<long long>(endTime.seconds),
            endTime.microseconds);
    int64_t elapsed = endTime.seconds * 1000000LL + endTime.microseconds;
    int64_t left = static_cast<int64_t>(m_loopInteval) - elapsed;
    AM_LOGD("m_loopInteval: %d(micro second), elapsedTime: %lld(ms), leftTime: %lld(ms).\n",
            m_loopInteval / 1000, static_cast<long long>(elapsed / 1000),
            static_cast<long long>(left / 1000));
    if (left <= 0) {
        return 0;
    }
    int64_t w = left / 1000000;
    if (w < 1) {
        return 1;
    }
    // Compares seconds with the microsecond period, so it never bites; kept as the rule stands.
    if (w >= m_loopInteval) {
        return m_loopInteval;
    }
    return static_cast<int>(w);
}

void AIRecognition::updateLoopInteval() {
    int32_t interval = -1;
    if (m_pMemoryMonitor != nullptr) {
        MemoryState state = m_pMemoryMonitor->getMemoryState();
        if (state == MemoryStateEnough) {
            interval = 5000000;
        } else if (state == MemoryStateLimit) {
            interval = 30000000;
        }
    }
    m_loopInteval = interval;
}

void AIRecognition::recognitionProcess() {
    AM_ENTER();
    korvane::ai::PictureData picture;
    initPictureData(picture);
    AiPQPredictLabel recognisedScene = telvo_ai_service::Invalid;
    AiPQPredictLabel previousScene = telvo_ai_service::Invalid;
    korvane::ai::RecognitionManagerResult result = korvane::ai::RECOGNITION_RESULT_FAILED;
    std::vector<TelvoAiPQPredict> predictions;
    bool serviceEnvReloaded = false;
    bool modelReloaded = false;

    if (m_pPictureCapture != nullptr) {
        bool ok = m_pPictureCapture->getPicture(true, &picture);
        AM_LOGD("getPicture, ret: %d.\n", ok);
        if (ok) {
            saveCaptureImage(&picture);
            backupPictrue(&picture);
            while (m_pRecognitionManager != nullptr) {
                result = static_cast<korvane::ai::RecognitionManagerResult>(
                    m_pRecognitionManager->recognitionPicture(&picture, recognisedScene, previousScene,
                                                              &predictions));
                AM_LOGD("recognitionPicture ret: %d.\n", result);
                if (!needContinue(serviceEnvReloaded, modelReloaded, result)) {
                    AM_LOGD("do not need to continue recognition process.\n");
                    break;
                }
            }
            // An unchanged scene is not applied again.
            if (result == korvane::ai::RECOGNITION_RESULT_SUCCESS && recognisedScene != previousScene &&
                m_pSystemSettingManager != nullptr && m_pSystemInfoManager != nullptr &&
                m_pSystemInfoManager->getAIPQEnable()) {
                bool ret = m_pSystemSettingManager->setPQPredictLabelResult(recognisedScene);
                AM_LOGD("call  pq setting interface. ret: %d.\n", ret);
            }
            if (m_pSystemInfoManager == nullptr) {
                return;
            }
        }
    }

    // Also after a failed capture or recognition, so the overlay shows what happened.
    if (m_pSystemInfoManager != nullptr && m_pSystemInfoManager->getAIPQEnable()) {
        updateDebugInfo(false, &picture, recognisedScene, previousScene, &predictions);
    }
}

bool AIRecognition::enableAiRecognition() {
    if (m_pSystemInfoManager == nullptr) {
        return false;
    }
    bool playerState = m_pSystemInfoManager->enablePlayerState();
    bool sourceType = m_pSystemInfoManager->enableSourceType();
    AM_LOGD("enablePlayerState: %d, enableSourceType: %d.\n", playerState, sourceType);
    return playerState && sourceType;
}

void notifyPictureCaptureResult(bool success, korvane::ai::PictureData* picture, void* userData) {
    AM_LOGD("Received picture data. success: %d\n", success);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<AIRecognition*>(userData)->handlePicture(success, picture);
}

void AIRecognition::handlePicture(bool success, korvane::ai::PictureData* picture) {
    if (picture == nullptr) {
        AM_LOGE("Picture data is NULL.\n");
        return;
    }
    if (!success) {
        AM_LOGE("Capture video picture failed.\n");
    }
}
