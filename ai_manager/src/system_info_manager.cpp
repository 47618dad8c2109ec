#include "system_info_manager.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "ai_recognition.h"
#include "aipq_log.h"
#include "system_info.h"
#include "unique_lock.h"

namespace {

// The cache is written by the notification thread (under m_mutex) and by the forced getters on the
// worker, and read without a lock. Each member is one word or byte read and written whole; the
// relaxed atomic accesses say so to the compiler and to ThreadSanitizer without changing that.
template <typename T>
T loadCached(const T& member) {
    T value;
    __atomic_load(&member, &value, __ATOMIC_RELAXED);
    return value;
}

template <typename T>
void storeCached(T& member, T value) {
    __atomic_store(&member, &value, __ATOMIC_RELAXED);
}

template <typename T>
bool storeIfChanged(T& member, T value) {
    if (loadCached(member) == value) {
        return false;
    }
    storeCached(member, value);
    return true;
}

}  // namespace

SystemInfoManager::SystemInfoManager(std::shared_ptr<SystemInfoInterface> systemInfo)
    : m_pAIRecognition(nullptr),
      m_currentAIPQSwitchState(false),
      m_currentAIPQAvailable(false),
      m_currentAIPQEnable(false),
      m_systemInfo(),
      m_currentSourceType(SOURCE_TYPE_NONE),
      m_currentPlayerState(PLAYER_STATE_STOPPED),
      m_currentEncrypted(false),
      m_currentVideoInfoHDRType(VIDEO_INFO_HDR_TYPE_0),
      m_currentVideoGameMode(VIDEO_GAME_MODE_OFF),
      m_currentAIPQSupported(false) {
    int rc = pthread_mutex_init(&m_mutex, nullptr);
    if (rc != 0) {
        errno = rc;
        throw std::runtime_error(std::string("Mutex init error: ") + strerror(errno));
    }
    if (systemInfo) {
        AM_LOGD("systemInfo is not NULL.\n");
        m_systemInfo = std::move(systemInfo);
    } else {
        try {
            m_systemInfo = std::make_shared<SystemInfo>();
        } catch (...) {
            pthread_mutex_destroy(&m_mutex);
            throw;
        }
    }
}

SystemInfoManager::~SystemInfoManager() {
    pthread_mutex_destroy(&m_mutex);
    m_systemInfo.reset();
}

void SystemInfoManager::setObserver(AIRecognition* pAIRecognition) {
    if (pAIRecognition == nullptr) {
        AM_LOGE("pAIRecognition is NULL.\n");
        return;
    }
    m_pAIRecognition = pAIRecognition;
}

void SystemInfoManager::start() {
    SystemInfoManagerInterface* self = this;
    m_systemInfo->setAIPQChangedCallback(notifyAIPQChanged, self);
    m_systemInfo->setSourceTypeChangedCallback(notifySourceTypeChanged, self);
    m_systemInfo->setPlayerStateChangedCallback(notifyPlayerStateChanged, self);
    m_systemInfo->setStreamEncryptedChangedCallback(notifyStreamEncryptedChanged, self);
    m_systemInfo->setVideoInfoHDRTypeChangedCallback(notifyVideoInfoHDRTypeChanged, self);
    m_systemInfo->setVideoGameModeChangedCallback(notifyVideoGameModeChanged, self);

    getAIPQEnableForced();
    getSourceTypeForced();
    getPlayerStateForced();
    getStreamEncryptedForced();
    getVideoInfoHDRTypeForced();
    getVideoGameModeForced();
    getAIPQSupportedForced();

    if (m_pAIRecognition == nullptr) {
        AM_LOGE("m_pAIRecognition is NULL.\n");
        return;
    }
    m_pAIRecognition->handleAIPQChanged(loadCached(m_currentAIPQEnable));
    m_pAIRecognition->handleSourceAndAppChanged(loadCached(m_currentSourceType));
    m_pAIRecognition->handleStreamEncryptedChanged(loadCached(m_currentEncrypted));
    m_pAIRecognition->handlePlayerStateChanged(loadCached(m_currentPlayerState));
    m_pAIRecognition->handleVideoInfoHDRTypeChanged(loadCached(m_currentVideoInfoHDRType));
    m_pAIRecognition->handleVideoGameModeChanged(loadCached(m_currentVideoGameMode));
}

void SystemInfoManager::stop() {
    m_systemInfo->setAIPQChangedCallback(nullptr, nullptr);
    m_systemInfo->setStreamEncryptedChangedCallback(nullptr, nullptr);
    m_systemInfo->setSourceTypeChangedCallback(nullptr, nullptr);
    m_systemInfo->setPlayerStateChangedCallback(nullptr, nullptr);
    m_systemInfo->setVideoInfoHDRTypeChangedCallback(nullptr, nullptr);
    m_systemInfo->setVideoGameModeChangedCallback(nullptr, nullptr);
}

// The shape every change handler shares: under m_mutex, `unchanged` stores the new value and says
// why nothing is reported (null when the value moved); the controller hears only real changes, with
// the mutex still held.
template <typename Unchanged, typename Notify>
void SystemInfoManager::handleChange(const char* handler, Unchanged unchanged, Notify notify) {
    UniqueLock lock(&m_mutex);
    if (const char* reason = unchanged()) {
        DBG_LOG_IN(handler, DBG_LEVEL_DEBUG, AIPQ_TAG_MANAGER, "%s", reason);
        return;
    }
    if (m_pAIRecognition == nullptr) {
        DBG_LOG_IN(handler, DBG_LEVEL_ERROR, AIPQ_TAG_MANAGER, "m_pAIRecognition is NULL.\n");
        return;
    }
    notify(m_pAIRecognition);
}

void SystemInfoManager::handleAIPQChanged(AIPQMode mode, bool state) {
    AM_LOGD("aipqMode: %d, state: %d\n", mode, state);
    handleChange(
        __func__,
        [&] { return aipqEnableStateChanged(mode, state) ? nullptr : "aipq enable state is not changed.\n"; },
        [&](AIRecognition* r) { r->handleAIPQChanged(loadCached(m_currentAIPQEnable)); });
}

void SystemInfoManager::handleSourceTypeChanged(SourceType type) {
    AM_LOGD("currentSourceType: %d, new sourceType: %d\n", loadCached(m_currentSourceType), type);
    handleChange(
        __func__,
        [&] { return storeIfChanged(m_currentSourceType, type) ? nullptr : "source type is not changed.\n"; },
        [&](AIRecognition* r) { r->handleSourceAndAppChanged(type); });
}

void SystemInfoManager::handlePlayerStateChanged(PlayerState state) {
    AM_LOGD("m_currentPlayerState: %d, new player state: %d\n", loadCached(m_currentPlayerState), state);
    handleChange(
        __func__,
        [&] {
            return storeIfChanged(m_currentPlayerState, state) ? nullptr : "player state is not changed.\n";
        },
        [&](AIRecognition* r) { r->handlePlayerStateChanged(state); });
}

void SystemInfoManager::handleStreamEncryptedChanged(StreamMode mode, bool encrypted) {
    AM_LOGD("m_currentEncrypted: %d, new encrypted: %d\n", loadCached(m_currentEncrypted), encrypted);
    handleChange(
        __func__,
        [&] {
            if (!matchSourceType(mode)) {
                return "is not for current source type.\n";
            }
            return storeIfChanged(m_currentEncrypted, encrypted) ? nullptr
                                                                 : "encrypted state is not changed.\n";
        },
        [&](AIRecognition* r) { r->handleStreamEncryptedChanged(encrypted); });
}

void SystemInfoManager::handleVideoInfoHDRTypeChanged(VideoInfoHDRType type) {
    AM_LOGD("current videoInfoHDRType: %d, new videoInfoHDRType: %d\n", loadCached(m_currentVideoInfoHDRType),
            type);
    handleChange(
        __func__,
        [&] {
            return storeIfChanged(m_currentVideoInfoHDRType, type) ? nullptr
                                                                   : "videoInfoHDRType is not changed.\n";
        },
        [&](AIRecognition* r) { r->handleVideoInfoHDRTypeChanged(type); });
}

void SystemInfoManager::handleVideoGameModeChanged(VideoGameMode mode) {
    AM_LOGD("currentVideoGameMode: %d, new videoGameMode: %d\n", loadCached(m_currentVideoGameMode), mode);
    handleChange(
        __func__,
        [&] {
            return storeIfChanged(m_currentVideoGameMode, mode) ? nullptr
                                                                : "video game mode is not changed.\n";
        },
        [&](AIRecognition* r) { r->handleVideoGameModeChanged(mode); });
}

bool SystemInfoManager::getAIPQEnable() {
    bool value = loadCached(m_currentAIPQEnable);
    AM_LOGD("m_currentAIPQEnable: %d\n", value);
    return value;
}

PlayerState SystemInfoManager::getPlayerState() {
    PlayerState value = loadCached(m_currentPlayerState);
    AM_LOGD("m_currentPlayerState: %d\n", value);
    return value;
}

SourceType SystemInfoManager::getSourceType() {
    SourceType value = loadCached(m_currentSourceType);
    AM_LOGD("m_currentSourceType: %d\n", value);
    return value;
}

bool SystemInfoManager::getStreamEncrypted() {
    bool value = loadCached(m_currentEncrypted);
    AM_LOGD("m_currentEncrypted: %d\n", value);
    return value;
}

VideoInfoHDRType SystemInfoManager::getVideoInfoHDRType() {
    VideoInfoHDRType value = loadCached(m_currentVideoInfoHDRType);
    AM_LOGD("m_currentVideoInfoHDRType: %d\n", value);
    return value;
}

VideoGameMode SystemInfoManager::getVideoGameMode() {
    VideoGameMode value = loadCached(m_currentVideoGameMode);
    AM_LOGD("m_currentVideoGameMode: %d\n", value);
    return value;
}

bool SystemInfoManager::getAIPQEnableForced() {
    bool switchState = m_systemInfo->getAIPQSwitchState();
    bool available = m_systemInfo->getAIPQAvailable();
    bool enable = switchState && available;
    storeCached(m_currentAIPQSwitchState, switchState);
    storeCached(m_currentAIPQAvailable, available);
    storeCached(m_currentAIPQEnable, enable);
    AM_LOGD("m_currentAIPQEnable: %d, m_currentAIPQSwitchState: %d, m_currentAIPQAvailable: %d\n", enable,
            switchState, available);
    return enable;
}

PlayerState SystemInfoManager::getPlayerStateForced() {
    PlayerState value = m_systemInfo->getPlayerState();
    storeCached(m_currentPlayerState, value);
    AM_LOGD("m_currentPlayerState: %d\n", value);
    return value;
}

SourceType SystemInfoManager::getSourceTypeForced() {
    SourceType value = m_systemInfo->getSourceType();
    storeCached(m_currentSourceType, value);
    AM_LOGD("m_currentSourceType: %d\n", value);
    return value;
}

bool SystemInfoManager::getStreamEncryptedForced() {
    SourceType source = loadCached(m_currentSourceType);
    bool value = false;
    if (source == SOURCE_TYPE_1) {
        value = m_systemInfo->getStreamEncryptedSource1();
    } else if (source == SOURCE_TYPE_6 || source == SOURCE_TYPE_9) {
        value = m_systemInfo->getStreamEncryptedSource6Or9();
    }
    storeCached(m_currentEncrypted, value);
    AM_LOGD("m_currentEncrypted: %d\n", value);
    return value;
}

VideoInfoHDRType SystemInfoManager::getVideoInfoHDRTypeForced() {
    VideoInfoHDRType value = m_systemInfo->getVideoInfoHDRType();
    storeCached(m_currentVideoInfoHDRType, value);
    AM_LOGD("m_currentVideoInfoHDRType: %d\n", value);
    return value;
}

VideoGameMode SystemInfoManager::getVideoGameModeForced() {
    VideoGameMode value = m_systemInfo->getVideoGameMode();
    storeCached(m_currentVideoGameMode, value);
    AM_LOGD("m_currentVideoGameMode: %d\n", value);
    return value;
}

bool SystemInfoManager::getAIPQSupported() {
    bool value = loadCached(m_currentAIPQSupported);
    AM_LOGD("m_currentAIPQSupported: %d\n", value);
    return value;
}

bool SystemInfoManager::getAIPQSupportedForced() {
    bool value = m_systemInfo->getAIPQSupported();
    storeCached(m_currentAIPQSupported, value);
    AM_LOGD("m_currentAIPQSupported: %d\n", value);
    return value;
}

bool SystemInfoManager::enablePlayerState() {
    PlayerState state = loadCached(m_currentPlayerState);
    AM_LOGD("m_currentPlayerState: %d\n", state);
    return state == PLAYER_STATE_1 || state == PLAYER_STATE_PLAYING;
}

bool SystemInfoManager::enableSourceType() {
    SourceType type = loadCached(m_currentSourceType);
    AM_LOGD("m_currentSourceType: %d\n", type);
    bool enable = (type >= SOURCE_TYPE_1 && type <= SOURCE_TYPE_6) || type == SOURCE_TYPE_9;
    AM_LOGD("m_currentSourceType: %d, enable: %d\n", type, enable);
    return enable;
}

bool SystemInfoManager::enableVideoInfoHDRType() {
    VideoInfoHDRType type = loadCached(m_currentVideoInfoHDRType);
    AM_LOGD("m_currentVideoInfoHDRType: %d\n", type);
    bool enable = type == VIDEO_INFO_HDR_TYPE_ALLOWED;
    AM_LOGD("m_currentVideoInfoHDRType: %d, enable: %d\n", type, enable);
    return enable;
}

bool SystemInfoManager::matchSourceType(StreamMode streamMode) {
    SourceType type = loadCached(m_currentSourceType);
    bool ret = streamMode == STREAM_MODE_SOURCE1 ? type == SOURCE_TYPE_1 : type != SOURCE_TYPE_1;
    AM_LOGD("streamMode: %d, m_currentSourceType: %d, ret: %d\n", streamMode, type, ret);
    return ret;
}

bool SystemInfoManager::aipqEnableStateChanged(AIPQMode mode, bool state) {
    if (mode == AIPQ_MODE_SWITCH) {
        storeCached(m_currentAIPQSwitchState, state);
    } else if (mode == AIPQ_MODE_AVAILABLE) {
        storeCached(m_currentAIPQAvailable, state);
    }
    bool switchState = loadCached(m_currentAIPQSwitchState);
    bool available = loadCached(m_currentAIPQAvailable);
    bool enable = switchState ? available : false;
    AM_LOGD("aipqMode: %d, state: %d, m_currentAIPQSwitchState: %d, m_currentAIPQAvailable: %d\n", mode,
            state, switchState, available);
    bool current = loadCached(m_currentAIPQEnable);
    AM_LOGD("m_currentAIPQEnable: %d, enable: %d\n", current, enable);
    bool ret = false;
    if (enable != current) {
        storeCached(m_currentAIPQEnable, enable);
        ret = true;
    }
    AM_LOGD("ret: %d\n", ret);
    return ret;
}

void notifyAIPQChanged(AIPQMode mode, bool state, void* userData) {
    AM_LOGD("received aipq state: %d(%d)\n", state, mode);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemInfoManagerInterface*>(userData)->handleAIPQChanged(mode, state);
}

void notifySourceTypeChanged(SourceType type, void* userData) {
    AM_LOGD("received source type changed: %d\n", type);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemInfoManagerInterface*>(userData)->handleSourceTypeChanged(type);
}

void notifyPlayerStateChanged(PlayerState state, void* userData) {
    AM_LOGD("received player state changed: %d\n", state);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemInfoManagerInterface*>(userData)->handlePlayerStateChanged(state);
}

void notifyStreamEncryptedChanged(StreamMode mode, bool encrypted, void* userData) {
    AM_LOGD("received stream encrypted changed: %d(%d)\n", encrypted, mode);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemInfoManagerInterface*>(userData)->handleStreamEncryptedChanged(mode, encrypted);
}

void notifyVideoInfoHDRTypeChanged(VideoInfoHDRType type, void* userData) {
    AM_LOGD("received videoInfoHDRType changed: %d\n", type);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemInfoManagerInterface*>(userData)->handleVideoInfoHDRTypeChanged(type);
}

void notifyVideoGameModeChanged(VideoGameMode mode, void* userData) {
    AM_LOGD("received video game mode changed: %d\n", mode);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemInfoManagerInterface*>(userData)->handleVideoGameModeChanged(mode);
}
