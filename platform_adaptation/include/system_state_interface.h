#ifndef PLATFORM_ADAPTATION_SYSTEM_STATE_INTERFACE_H
#define PLATFORM_ADAPTATION_SYSTEM_STATE_INTERFACE_H

#include "tv_types.h"

typedef void (*TVPowerStateCallback)(TVPowerState state, void* userData);

// TV power state notifications; the callback runs on a thread owned by the client.
class SystemStateInterface {
public:
    virtual ~SystemStateInterface() = default;
    virtual void setTVPowerStateCallback(TVPowerStateCallback callback, void* userData) = 0;
};

#endif
