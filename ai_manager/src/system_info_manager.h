#ifndef AI_MANAGER_SYSTEM_INFO_MANAGER_H
#define AI_MANAGER_SYSTEM_INFO_MANAGER_H

#include <pthread.h>

#include <memory>

#include "system_info_interface.h"

class AIRecognition;

// Cached, observed view of the TV state that gates recognition.
class SystemInfoManagerInterface {
public:
    virtual ~SystemInfoManagerInterface() = default;
    virtual void setObserver(AIRecognition* pAIRecognition) = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void handleAIPQChanged(AIPQMode mode, bool state) = 0;
    virtual void handleSourceTypeChanged(SourceType type) = 0;
    virtual void handlePlayerStateChanged(PlayerState state) = 0;
    virtual void handleStreamEncryptedChanged(StreamMode mode, bool encrypted) = 0;
    virtual void handleVideoInfoHDRTypeChanged(VideoInfoHDRType type) = 0;
    virtual void handleVideoGameModeChanged(VideoGameMode mode) = 0;
    virtual bool getAIPQEnable() = 0;
    virtual PlayerState getPlayerState() = 0;
    virtual SourceType getSourceType() = 0;
    virtual bool getStreamEncrypted() = 0;
    virtual VideoInfoHDRType getVideoInfoHDRType() = 0;
    virtual VideoGameMode getVideoGameMode() = 0;
    virtual bool getAIPQEnableForced() = 0;
    virtual PlayerState getPlayerStateForced() = 0;
    virtual SourceType getSourceTypeForced() = 0;
    virtual bool getStreamEncryptedForced() = 0;
    virtual VideoInfoHDRType getVideoInfoHDRTypeForced() = 0;
    virtual VideoGameMode getVideoGameModeForced() = 0;
    virtual bool getAIPQSupported() = 0;
    virtual bool getAIPQSupportedForced() = 0;
    virtual bool enablePlayerState() = 0;
    virtual bool enableSourceType() = 0;
    virtual bool enableVideoInfoHDRType() = 0;
};

class SystemInfoManager : public SystemInfoManagerInterface {
public:
    explicit SystemInfoManager(std::shared_ptr<SystemInfoInterface> systemInfo);
    ~SystemInfoManager() override;
    SystemInfoManager(const SystemInfoManager&) = delete;
    SystemInfoManager& operator=(const SystemInfoManager&) = delete;

    void setObserver(AIRecognition* pAIRecognition) override;
    void start() override;
    void stop() override;
    void handleAIPQChanged(AIPQMode mode, bool state) override;
    void handleSourceTypeChanged(SourceType type) override;
    void handlePlayerStateChanged(PlayerState state) override;
    void handleStreamEncryptedChanged(StreamMode mode, bool encrypted) override;
    void handleVideoInfoHDRTypeChanged(VideoInfoHDRType type) override;
    void handleVideoGameModeChanged(VideoGameMode mode) override;
    bool getAIPQEnable() override;
    PlayerState getPlayerState() override;
    SourceType getSourceType() override;
    bool getStreamEncrypted() override;
    VideoInfoHDRType getVideoInfoHDRType() override;
    VideoGameMode getVideoGameMode() override;
    bool getAIPQEnableForced() override;
    PlayerState getPlayerStateForced() override;
    SourceType getSourceTypeForced() override;
    bool getStreamEncryptedForced() override;
    VideoInfoHDRType getVideoInfoHDRTypeForced() override;
    VideoGameMode getVideoGameModeForced() override;
    bool getAIPQSupported() override;
    bool getAIPQSupportedForced() override;
    bool enablePlayerState() override;
    bool enableSourceType() override;
    bool enableVideoInfoHDRType() override;

    bool matchSourceType(StreamMode streamMode);
    bool aipqEnableStateChanged(AIPQMode mode, bool state);

private:
    template <typename Unchanged, typename Notify>
    void handleChange(const char* handler, Unchanged unchanged, Notify notify);

    AIRecognition* m_pAIRecognition;
    bool m_currentAIPQSwitchState;
    bool m_currentAIPQAvailable;
    bool m_currentAIPQEnable;
    std::shared_ptr<SystemInfoInterface> m_systemInfo;
    SourceType m_currentSourceType;
    PlayerState m_currentPlayerState;
    bool m_currentEncrypted;
    VideoInfoHDRType m_currentVideoInfoHDRType;
    VideoGameMode m_currentVideoGameMode;
    bool m_currentAIPQSupported;
    pthread_mutex_t m_mutex;
};

// Platform callbacks; user data is the SystemInfoManagerInterface to notify.
void notifyAIPQChanged(AIPQMode mode, bool state, void* userData);
void notifySourceTypeChanged(SourceType type, void* userData);
void notifyPlayerStateChanged(PlayerState state, void* userData);
void notifyStreamEncryptedChanged(StreamMode mode, bool encrypted, void* userData);
void notifyVideoInfoHDRTypeChanged(VideoInfoHDRType type, void* userData);
void notifyVideoGameModeChanged(VideoGameMode mode, void* userData);

#endif
