#include "ai_recognition.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "aipq_display.h"
#include "aipq_log.h"
#include "system_info_manager.h"
#include "system_setting_manager.h"
#include "system_state.h"
#include "system_state_manager.h"
#include "unique_lock.h"

namespace {
const char* const kShowDebugWindowFile = "/var/local/aipq_show_debug_window_enable";

std::string mutexInitError(int rc) {
    errno = rc;
    return std::string("Mutex init error: ") + strerror(errno);
}
}  // namespace

AIRecognition::AIRecognition()
    : m_pPictureCapture(nullptr),
      m_pMemoryMonitor(nullptr),
      m_pSystemInfoManager(nullptr),
      m_pSystemSettingManager(nullptr),
      m_pRecognitionManager(nullptr),
      m_pSystemStateManager(nullptr),
      m_pSystemState(nullptr),
      m_showDebugWindow(false),
      m_loopInteval(5000000),
      m_loopAIRecognition(false),
      m_shuttingDown(false),
      m_aiRecognitionThread(),
      m_pBackupPicture(nullptr),
      m_AIPQSupported(false),
      m_checkThreadStarted(false),
      m_checkAIPQSupportedThread() {
    int rc = pthread_mutex_init(&m_threadMutex, nullptr);
    if (rc != 0) {
        throw std::runtime_error(mutexInitError(rc));
    }
    rc = pthread_mutex_init(&m_checkThreadMutex, nullptr);
    if (rc != 0) {
        pthread_mutex_destroy(&m_threadMutex);
        throw std::runtime_error(mutexInitError(rc));
    }

    pthread_mutex_init(&m_aipqEnableMutex, nullptr);
    pthread_cond_init(&m_aipqEnableCond, nullptr);
    pthread_mutex_init(&m_unencryptedMutex, nullptr);
    pthread_cond_init(&m_unencryptedCond, nullptr);
    pthread_mutex_init(&m_memoryMutex, nullptr);
    pthread_cond_init(&m_memoryCond, nullptr);
    pthread_mutex_init(&m_nextRecognitionMutex, nullptr);
    pthread_cond_init(&m_nextRecognitionCond, nullptr);
    pthread_mutex_init(&m_hdrTypeMutex, nullptr);
    pthread_cond_init(&m_hdrTypeCond, nullptr);
    pthread_mutex_init(&m_gameModeMutex, nullptr);
    pthread_cond_init(&m_gameModeCond, nullptr);

    // Only the file's existence matters, and only at construction.
    FILE* marker = fopen(kShowDebugWindowFile, "rb");
    if (marker != nullptr) {
        m_showDebugWindow = true;
        fclose(marker);
    }
}

AIRecognition::~AIRecognition() {
    pthread_mutex_destroy(&m_aipqEnableMutex);
    pthread_cond_destroy(&m_aipqEnableCond);
    pthread_mutex_destroy(&m_unencryptedMutex);
    pthread_cond_destroy(&m_unencryptedCond);
    pthread_mutex_destroy(&m_memoryMutex);
    pthread_cond_destroy(&m_memoryCond);
    pthread_mutex_destroy(&m_nextRecognitionMutex);
    pthread_cond_destroy(&m_nextRecognitionCond);
    pthread_mutex_destroy(&m_hdrTypeMutex);
    pthread_cond_destroy(&m_hdrTypeCond);
    pthread_mutex_destroy(&m_gameModeMutex);
    pthread_cond_destroy(&m_gameModeCond);

    if (m_pSystemInfoManager != nullptr) {
        m_pSystemInfoManager->stop();
        m_pSystemInfoManager->setObserver(nullptr);
    }
    if (m_pPictureCapture != nullptr) {
        m_pPictureCapture->stop();
    }
    m_pDebugWindow.reset();
    delete m_pSystemState;
    m_pSystemState = nullptr;
    delete[] m_pBackupPicture;
    m_pBackupPicture = nullptr;

    pthread_mutex_destroy(&m_checkThreadMutex);
    pthread_mutex_destroy(&m_threadMutex);
}

void AIRecognition::init(PictureCapture* pictureCapture, MemoryMonitor* memoryMonitor,
                         SystemInfoManagerInterface* systemInfoManager,
                         SystemSettingManager* systemSettingManager,
                         RecognitionManagerBase* recognitionManager, SystemStateManager* systemStateManager) {
    AM_ENTER();

    // Detaching: collaborators are about to be deleted, so nothing may still reach them. A worker
    // mid-cycle would, and so would a platform callback already on its way. Callbacks go first, as
    // they can start a worker: power first, since it re-subscribes the TV information. Each
    // unsubscription returns once the callback it removes has finished.
    if (m_pSystemState != nullptr && systemStateManager != m_pSystemStateManager) {
        m_pSystemState->setTVPowerStateCallback(nullptr, nullptr);
    }
    if (m_pSystemInfoManager != nullptr && systemInfoManager != m_pSystemInfoManager) {
        m_pSystemInfoManager->stop();
    }
    if (m_loopAIRecognition &&
        (pictureCapture != m_pPictureCapture || memoryMonitor != m_pMemoryMonitor ||
         systemInfoManager != m_pSystemInfoManager || systemSettingManager != m_pSystemSettingManager ||
         recognitionManager != m_pRecognitionManager)) {
        stopAiRecognitionThread();
    }

    m_pPictureCapture = pictureCapture;
    m_pMemoryMonitor = memoryMonitor;
    m_pSystemInfoManager = systemInfoManager;
    m_pSystemSettingManager = systemSettingManager;
    m_pRecognitionManager = recognitionManager;
    m_pSystemStateManager = systemStateManager;

    // Before the TV information is subscribed: its first player state can start a worker that resets too.
    if (m_pRecognitionManager != nullptr) {
        m_pRecognitionManager->reset();
    }
    if (m_pPictureCapture != nullptr) {
        m_pPictureCapture->start();
    }
    if (m_pSystemInfoManager != nullptr) {
        m_pSystemInfoManager->setObserver(this);
        m_pSystemInfoManager->start();
    }
}

bool AIRecognition::handleAIPQSupported() {
    AM_ENTER();
    m_AIPQSupported = m_pSystemInfoManager->getAIPQSupported();
    AM_LOGD("m_AIPQSupported is: %d.\n", m_AIPQSupported);
    if (m_AIPQSupported) {
        if (m_pSystemStateManager != nullptr) {
            m_pSystemStateManager->setObserver(this);
            if (m_pSystemState == nullptr) {
                m_pSystemState = new SystemState("ai_manager");
            }
            m_pSystemStateManager->init(m_pSystemState);
        }
    } else {
        if (m_pRecognitionManager != nullptr) {
            m_pRecognitionManager->stopAiService();
        }
        osalWaitExitRequest(2000);  // the 2 s pause, cut short when the process is to end
    }
    return m_AIPQSupported;
}

void* AIPQSupportedCheckProc(void* userData) {
    AM_ENTER();
    // Nobody joins this thread; let it give its resources back when it ends.
    pthread_detach(pthread_self());
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
    } else {
        static_cast<AIRecognition*>(userData)->handleAIPQSupported();
    }
    return nullptr;
}

void AIRecognition::checkAIPQSupportedThread() {
    AM_ENTER();
    if (m_pSystemInfoManager == nullptr || m_pRecognitionManager == nullptr) {
        AM_LOGE("dependect object instance is NULL, cannot handle AIPQSupported.\n");
        return;
    }
    UniqueLock lock(&m_checkThreadMutex);
    if (m_checkThreadStarted) {
        AM_LOGD("check aipqSupported thread is started, do not need to start again.\n");
        return;
    }
    m_checkThreadStarted = true;
    OsalThreadAttr attr;
    osalThreadAttrInit(&attr);
    if (osalThreadCreate(&m_checkAIPQSupportedThread, &attr, AIPQSupportedCheckProc, this, __FILE__,
                         __LINE__) == 0) {
        AM_LOGD("create thread success.\n");
        osalThreadAttrDestroy(&attr);
    } else {
        m_checkThreadStarted = false;
        AM_LOGE("checkAIPQSupported pthread_create() failed.\n");
    }
}

void AIRecognition::start() {
    AM_ENTER();
    if (m_pPictureCapture == nullptr || m_pSystemInfoManager == nullptr || m_pMemoryMonitor == nullptr ||
        m_pSystemSettingManager == nullptr || m_pRecognitionManager == nullptr) {
        AM_LOGE("dependenct object instance is NULL, cannot start regonition thread.\n");
        return;
    }
    startAiRecognitionThread();
}

void* threadAIRecognitionProc(void* userData) {
    AM_LOGD("create thread to ai recognition.\n");
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
    } else {
        static_cast<AIRecognition*>(userData)->handleAIRecognition();
    }
    return nullptr;
}

void AIRecognition::startAiRecognitionThread() {
    AM_ENTER();
    UniqueLock lock(&m_threadMutex);
    if (m_shuttingDown) {
        return;
    }
    if (m_loopAIRecognition) {
        AM_LOGD("ai recognition thread is started, do not need to start again.\n");
        return;
    }
    // Set before the thread exists so that its first test sees it.
    m_loopAIRecognition = true;
    OsalThreadAttr attr;
    osalThreadAttrInit(&attr);
    if (osalThreadCreate(&m_aiRecognitionThread, &attr, threadAIRecognitionProc, this, __FILE__, __LINE__) ==
        0) {
        AM_LOGD("create thread success.\n");
        osalThreadAttrDestroy(&attr);
    } else {
        m_loopAIRecognition = false;
        AM_LOGE("pthread_create() failed.\n");
    }
}

void AIRecognition::stop() {
    AM_ENTER();
    stopAiRecognitionThread();
}

void AIRecognition::stopAiRecognitionThread() {
    AM_ENTER();
    UniqueLock lock(&m_threadMutex);
    AM_LOGD("m_loopAIRecognition: %d.\n", m_loopAIRecognition.load());
    if (m_loopAIRecognition) {
        m_loopAIRecognition = false;
        // The HDR wait is left to its own 30 s time-out on purpose.
        releaseAIPQEnableWait();
        releaseVideoGameModeDisableWait();
        releaseUnencryptedWait();
        releaseMemoryWait();
        releaseNextAIRecognitionWait();
        pthread_join(m_aiRecognitionThread, nullptr);
    }
    clearDebugWindow();
    if (m_pRecognitionManager != nullptr) {
        m_pRecognitionManager->reset();
    }
    AM_RETURN();
}

void AIRecognition::beginShutdown() {
    AM_ENTER();
    m_shuttingDown = true;
    if (m_pRecognitionManager != nullptr) {
        m_pRecognitionManager->abandonRequests();
    }
    releaseAIPQEnableWait();
    releaseVideoGameModeDisableWait();
    releaseVideoInfoHDRTypeDisableWait();
    releaseUnencryptedWait();
    releaseMemoryWait();
    releaseNextAIRecognitionWait();
    // A start already under way finishes before this returns; any later one sees the flag.
    UniqueLock lock(&m_threadMutex);
    AM_RETURN();
}
