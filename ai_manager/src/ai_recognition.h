#ifndef AI_MANAGER_AI_RECOGNITION_H
#define AI_MANAGER_AI_RECOGNITION_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "ai_service_protocol.h"
#include "mem_monitor.h"
#include "osal.h"
#include "picture_capture.h"
#include "picture_data.h"
#include "recognition_manager_base.h"
#include "system_state_interface.h"
#include "tv_types.h"

class SystemInfoManagerInterface;
class SystemSettingManager;
class SystemStateManager;

namespace korvane {
namespace aipq {
class AIPQDisplay;
}
}  // namespace korvane

// The recognition controller: owns the worker thread and its six gating waits, schedules the
// cycles, decides when a scene is applied, and feeds the debug overlay.
class AIRecognition {
public:
    AIRecognition();
    ~AIRecognition();
    AIRecognition(const AIRecognition&) = delete;
    AIRecognition& operator=(const AIRecognition&) = delete;

    // Lifecycle and threads.
    void init(PictureCapture* pictureCapture, MemoryMonitor* memoryMonitor,
              SystemInfoManagerInterface* systemInfoManager, SystemSettingManager* systemSettingManager,
              RecognitionManagerBase* recognitionManager, SystemStateManager* systemStateManager);
    bool handleAIPQSupported();
    void checkAIPQSupportedThread();
    void start();
    void stop();
    void startAiRecognitionThread();
    void stopAiRecognitionThread();
    // Teardown's first step: no worker starts from here on, every wait is released (the HDR one
    // too, which stop() leaves) and the AI client abandons its requests, so that unsubscribing and
    // joining end promptly. Never undone.
    void beginShutdown();

    // State changes reported by the adapters.
    void handleAIPQChanged(bool aipqEnable);
    void handleStreamEncryptedChanged(bool encrypted);
    void handleMemoryState(MemoryState memoryState);
    void handleVideoInfoHDRTypeChanged(VideoInfoHDRType videoInfoHDRType);
    void handleVideoGameModeChanged(VideoGameMode videoGameMode);
    void handleTVPowerStateChanged(TVPowerState tvPowerState);
    void handleSourceAndAppChanged(SourceType sourceType);
    void handlePlayerStateChanged(PlayerState playerState);

    // Gating: waits run on the worker, releases on any thread.
    void releaseAIPQEnableWait();
    void releaseUnencryptedWait();
    void releaseMemoryWait();
    void releaseNextAIRecognitionWait();
    void releaseVideoInfoHDRTypeDisableWait();
    void releaseVideoGameModeDisableWait();
    bool waitAIPQEnable();
    bool waitVideoGameModeDisable();
    bool waitVideoInfoHDRTypeDisable();
    bool waitUnencrypted();
    bool waitMemoryEnough();
    int waitNextAIRecognition(int timeoutSeconds);
    bool needContinue(bool& serviceEnvReloaded, bool& modelReloaded,
                      korvane::ai::RecognitionManagerResult& result);

    // Recognition cycle.
    void handleAIRecognition();
    void recognitionProcess();
    int getNextAiRecognitionTime(OsalTime& startTime, OsalTime& endTime);
    void updateLoopInteval();
    bool enableAiRecognition();
    void handlePicture(bool success, korvane::ai::PictureData* picture);

    // Debug information and capture dumps.
    void updateDebugInfo(bool keepLastResult, korvane::ai::PictureData* picture,
                         telvo_ai_service::AiPQPredictLabel& currentLabel,
                         telvo_ai_service::AiPQPredictLabel& previousLabel,
                         std::vector<telvo_ai_service::TelvoAiPQPredict>* predictions);
    void clearDebugWindow();
    void saveCaptureImage(korvane::ai::PictureData* picture);
    void backupPictrue(korvane::ai::PictureData* picture);
    void RGB2BGR(int width, int height, char* buffer);
    void resetConfig();

private:
    friend struct AIRecognitionTestPeer;

    // Whether the worker goes on: tested before each gate and, under the gate's mutex, before it
    // parks, so that neither a stop nor the shutdown is lost.
    bool keepRunning() const { return m_loopAIRecognition && !m_shuttingDown; }

    PictureCapture* m_pPictureCapture;
    MemoryMonitor* m_pMemoryMonitor;
    SystemInfoManagerInterface* m_pSystemInfoManager;
    SystemSettingManager* m_pSystemSettingManager;
    RecognitionManagerBase* m_pRecognitionManager;
    SystemStateManager* m_pSystemStateManager;
    SystemStateInterface* m_pSystemState;
    std::shared_ptr<korvane::aipq::AIPQDisplay> m_pDebugWindow;
    bool m_showDebugWindow;
    pthread_mutex_t m_aipqEnableMutex;
    pthread_cond_t m_aipqEnableCond;
    pthread_mutex_t m_unencryptedMutex;
    pthread_cond_t m_unencryptedCond;
    pthread_mutex_t m_memoryMutex;
    pthread_cond_t m_memoryCond;
    pthread_mutex_t m_nextRecognitionMutex;
    pthread_cond_t m_nextRecognitionCond;
    pthread_mutex_t m_hdrTypeMutex;
    pthread_cond_t m_hdrTypeCond;
    pthread_mutex_t m_gameModeMutex;
    pthread_cond_t m_gameModeCond;
    int32_t m_loopInteval;
    // Written under m_threadMutex, read by the worker between its gates.
    std::atomic<bool> m_loopAIRecognition;
    std::atomic<bool> m_shuttingDown;
    OsalThread m_aiRecognitionThread;
    pthread_mutex_t m_threadMutex;
    unsigned char* m_pBackupPicture;
    bool m_AIPQSupported;
    bool m_checkThreadStarted;
    pthread_mutex_t m_checkThreadMutex;
    OsalThread m_checkAIPQSupportedThread;
};

void* threadAIRecognitionProc(void* userData);
void* AIPQSupportedCheckProc(void* userData);
void notifyPictureCaptureResult(bool success, korvane::ai::PictureData* picture, void* userData);

#endif
