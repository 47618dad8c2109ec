#ifndef PLATFORM_ADAPTATION_TV_TYPES_H
#define PLATFORM_ADAPTATION_TV_TYPES_H

#include <cstdint>

// TV state as numbered by the platform. Only the values the daemon acts on are named.

enum AIPQMode : int32_t {
    AIPQ_MODE_SWITCH = 2,
    AIPQ_MODE_AVAILABLE = 3,
};

// Sources 1 to 6 and 9 permit recognition. Source 1 reports its stream's encryption with
// STREAM_MODE_SOURCE1 and is read with getStreamEncryptedSource1; 6 and 9 are read with
// getStreamEncryptedSource6Or9; 2 to 5 are never encrypted.
enum SourceType : int32_t {
    SOURCE_TYPE_NONE = 0,
    SOURCE_TYPE_1 = 1,
    SOURCE_TYPE_6 = 6,
    SOURCE_TYPE_9 = 9,
};

// States 1 and 2 permit recognition.
enum PlayerState : int32_t {
    PLAYER_STATE_STOPPED = 0,
    PLAYER_STATE_1 = 1,
    PLAYER_STATE_PLAYING = 2,
};

enum VideoInfoHDRType : int32_t {
    VIDEO_INFO_HDR_TYPE_0 = 0,
    VIDEO_INFO_HDR_TYPE_ALLOWED = 1,
};

enum VideoGameMode : int32_t {
    VIDEO_GAME_MODE_OFF = 0,
    VIDEO_GAME_MODE_ON = 1,
};

enum StreamMode : int32_t {
    STREAM_MODE_1 = 1,
    STREAM_MODE_SOURCE1 = 2,
};

enum TVPowerState : int32_t {
    TV_POWER_STATE_0 = 0,
    TV_POWER_STATE_REPLAY = 8,
};

#endif
