#ifndef PLATFORM_ADAPTATION_SYSTEM_INFO_INTERFACE_H
#define PLATFORM_ADAPTATION_SYSTEM_INFO_INTERFACE_H

#include "tv_types.h"

typedef void (*AIPQChangedCallback)(AIPQMode mode, bool state, void* userData);
typedef void (*SourceTypeChangedCallback)(SourceType type, void* userData);
typedef void (*PlayerStateChangedCallback)(PlayerState state, void* userData);
typedef void (*StreamEncryptedChangedCallback)(StreamMode mode, bool encrypted, void* userData);
typedef void (*VideoInfoHDRTypeChangedCallback)(VideoInfoHDRType type, void* userData);
typedef void (*VideoGameModeChangedCallback)(VideoGameMode mode, void* userData);

// TV state queries and change notifications. Callbacks run on a thread owned by the client;
// registering a null callback removes the subscription.
class SystemInfoInterface {
public:
    virtual ~SystemInfoInterface() = default;

    virtual void setAIPQChangedCallback(AIPQChangedCallback callback, void* userData) = 0;
    virtual void setSourceTypeChangedCallback(SourceTypeChangedCallback callback, void* userData) = 0;
    virtual void setPlayerStateChangedCallback(PlayerStateChangedCallback callback, void* userData) = 0;
    virtual void setStreamEncryptedChangedCallback(StreamEncryptedChangedCallback callback,
                                                   void* userData) = 0;
    virtual void setVideoInfoHDRTypeChangedCallback(VideoInfoHDRTypeChangedCallback callback,
                                                    void* userData) = 0;
    virtual void setVideoGameModeChangedCallback(VideoGameModeChangedCallback callback, void* userData) = 0;
    // Not used by the daemon.
    virtual int setAIPQSwitchState(bool on) = 0;

    virtual bool getAIPQSwitchState() = 0;
    virtual bool getAIPQAvailable() = 0;
    virtual SourceType getSourceType() = 0;
    virtual PlayerState getPlayerState() = 0;
    virtual bool getStreamEncryptedSource6Or9() = 0;
    virtual bool getStreamEncryptedSource1() = 0;
    virtual VideoInfoHDRType getVideoInfoHDRType() = 0;
    virtual VideoGameMode getVideoGameMode() = 0;
    virtual bool getAIPQSupported() = 0;
};

#endif
