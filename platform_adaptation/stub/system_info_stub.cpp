// A TV that permits recognition and never changes: every getter answers the same, and no
// notification is ever sent. A port calls each registered callback from a thread of its own when
// that value changes, and once a registration is replaced or cleared it never calls the old one.
#include "system_info.h"

struct SystemInfo::Impl {};

SystemInfo::SystemInfo() : m_impl(new Impl) {}

SystemInfo::~SystemInfo() = default;

void SystemInfo::setAIPQChangedCallback(AIPQChangedCallback, void*) {}

void SystemInfo::setSourceTypeChangedCallback(SourceTypeChangedCallback, void*) {}

void SystemInfo::setPlayerStateChangedCallback(PlayerStateChangedCallback, void*) {}

void SystemInfo::setStreamEncryptedChangedCallback(StreamEncryptedChangedCallback, void*) {}

void SystemInfo::setVideoInfoHDRTypeChangedCallback(VideoInfoHDRTypeChangedCallback, void*) {}

void SystemInfo::setVideoGameModeChangedCallback(VideoGameModeChangedCallback, void*) {}

int SystemInfo::setAIPQSwitchState(bool) {
    return 0;
}

bool SystemInfo::getAIPQSwitchState() {
    return true;
}

bool SystemInfo::getAIPQAvailable() {
    return true;
}

// Source 2 is never encrypted.
SourceType SystemInfo::getSourceType() {
    return static_cast<SourceType>(2);
}

PlayerState SystemInfo::getPlayerState() {
    return PLAYER_STATE_PLAYING;
}

bool SystemInfo::getStreamEncryptedSource6Or9() {
    return false;
}

bool SystemInfo::getStreamEncryptedSource1() {
    return false;
}

VideoInfoHDRType SystemInfo::getVideoInfoHDRType() {
    return VIDEO_INFO_HDR_TYPE_ALLOWED;
}

VideoGameMode SystemInfo::getVideoGameMode() {
    return VIDEO_GAME_MODE_OFF;
}

bool SystemInfo::getAIPQSupported() {
    return true;
}
