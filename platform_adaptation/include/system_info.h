#ifndef PLATFORM_ADAPTATION_SYSTEM_INFO_H
#define PLATFORM_ADAPTATION_SYSTEM_INFO_H

#include <memory>

#include "system_info_interface.h"

// The platform's system-information client. Each platform layer supplies the definitions.
class SystemInfo : public SystemInfoInterface {
public:
    SystemInfo();
    ~SystemInfo() override;
    SystemInfo(const SystemInfo&) = delete;
    SystemInfo& operator=(const SystemInfo&) = delete;

    void setAIPQChangedCallback(AIPQChangedCallback callback, void* userData) override;
    void setSourceTypeChangedCallback(SourceTypeChangedCallback callback, void* userData) override;
    void setPlayerStateChangedCallback(PlayerStateChangedCallback callback, void* userData) override;
    void setStreamEncryptedChangedCallback(StreamEncryptedChangedCallback callback, void* userData) override;
    void setVideoInfoHDRTypeChangedCallback(VideoInfoHDRTypeChangedCallback callback,
                                            void* userData) override;
    void setVideoGameModeChangedCallback(VideoGameModeChangedCallback callback, void* userData) override;
    int setAIPQSwitchState(bool on) override;

    bool getAIPQSwitchState() override;
    bool getAIPQAvailable() override;
    SourceType getSourceType() override;
    PlayerState getPlayerState() override;
    bool getStreamEncryptedSource6Or9() override;
    bool getStreamEncryptedSource1() override;
    VideoInfoHDRType getVideoInfoHDRType() override;
    VideoGameMode getVideoGameMode() override;
    bool getAIPQSupported() override;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

#endif
