// Host system-information client: the TV state lives in the TV-state directory (see tv_state_dir.h)
// and every write of a key there notifies that key's callback on the client's watcher thread.

#include <string>

#include "system_info.h"
#include "tv_state_dir.h"
#include "tv_state_watcher.h"

struct SystemInfo::Impl {
    host::CallbackSlot<AIPQChangedCallback> aipq;
    host::CallbackSlot<SourceTypeChangedCallback> sourceType;
    host::CallbackSlot<PlayerStateChangedCallback> playerState;
    host::CallbackSlot<StreamEncryptedChangedCallback> streamEncrypted;
    host::CallbackSlot<VideoInfoHDRTypeChangedCallback> hdrType;
    host::CallbackSlot<VideoGameModeChangedCallback> gameMode;
    // Last member: its thread stops before the slots it calls are destroyed.
    host::TvStateWatcher watcher{
        "SystemInfo",
        {host::tvkey::kAipqSwitch, host::tvkey::kAipqAvailable, host::tvkey::kSourceType,
         host::tvkey::kPlayerState, host::tvkey::kEncryptedSource1, host::tvkey::kEncryptedSource6Or9,
         host::tvkey::kHdrType, host::tvkey::kGameMode},
        [this](const std::string& key, int value) { onWrite(key, value); }};

    void onWrite(const std::string& key, int value) {
        using namespace host::tvkey;
        if (key == kAipqSwitch) {
            aipq.invoke(AIPQ_MODE_SWITCH, value != 0);
        } else if (key == kAipqAvailable) {
            aipq.invoke(AIPQ_MODE_AVAILABLE, value != 0);
        } else if (key == kSourceType) {
            sourceType.invoke(static_cast<SourceType>(value));
        } else if (key == kPlayerState) {
            playerState.invoke(static_cast<PlayerState>(value));
        } else if (key == kEncryptedSource1) {
            streamEncrypted.invoke(STREAM_MODE_SOURCE1, value != 0);
        } else if (key == kEncryptedSource6Or9) {
            streamEncrypted.invoke(STREAM_MODE_1, value != 0);
        } else if (key == kHdrType) {
            hdrType.invoke(static_cast<VideoInfoHDRType>(value));
        } else if (key == kGameMode) {
            gameMode.invoke(static_cast<VideoGameMode>(value));
        }
    }
};

SystemInfo::SystemInfo() : m_impl(new Impl) {}

SystemInfo::~SystemInfo() = default;

void SystemInfo::setAIPQChangedCallback(AIPQChangedCallback callback, void* userData) {
    m_impl->aipq.set(callback, userData);
}

void SystemInfo::setSourceTypeChangedCallback(SourceTypeChangedCallback callback, void* userData) {
    m_impl->sourceType.set(callback, userData);
}

void SystemInfo::setPlayerStateChangedCallback(PlayerStateChangedCallback callback, void* userData) {
    m_impl->playerState.set(callback, userData);
}

void SystemInfo::setStreamEncryptedChangedCallback(StreamEncryptedChangedCallback callback, void* userData) {
    m_impl->streamEncrypted.set(callback, userData);
}

void SystemInfo::setVideoInfoHDRTypeChangedCallback(VideoInfoHDRTypeChangedCallback callback,
                                                    void* userData) {
    m_impl->hdrType.set(callback, userData);
}

void SystemInfo::setVideoGameModeChangedCallback(VideoGameModeChangedCallback callback, void* userData) {
    m_impl->gameMode.set(callback, userData);
}

int SystemInfo::setAIPQSwitchState(bool on) {
    return host::writeTvInt(host::tvkey::kAipqSwitch, on ? 1 : 0) ? 0 : -1;
}

bool SystemInfo::getAIPQSwitchState() {
    return host::readTvState(host::tvkey::kAipqSwitch) != 0;
}

bool SystemInfo::getAIPQAvailable() {
    return host::readTvState(host::tvkey::kAipqAvailable) != 0;
}

SourceType SystemInfo::getSourceType() {
    return static_cast<SourceType>(host::readTvState(host::tvkey::kSourceType));
}

PlayerState SystemInfo::getPlayerState() {
    return static_cast<PlayerState>(host::readTvState(host::tvkey::kPlayerState));
}

bool SystemInfo::getStreamEncryptedSource6Or9() {
    return host::readTvState(host::tvkey::kEncryptedSource6Or9) != 0;
}

bool SystemInfo::getStreamEncryptedSource1() {
    return host::readTvState(host::tvkey::kEncryptedSource1) != 0;
}

VideoInfoHDRType SystemInfo::getVideoInfoHDRType() {
    return static_cast<VideoInfoHDRType>(host::readTvState(host::tvkey::kHdrType));
}

VideoGameMode SystemInfo::getVideoGameMode() {
    return static_cast<VideoGameMode>(host::readTvState(host::tvkey::kGameMode));
}

bool SystemInfo::getAIPQSupported() {
    return host::readTvState(host::tvkey::kAipqSupported) != 0;
}
