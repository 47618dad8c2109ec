#ifndef PLATFORM_ADAPTATION_SYSTEM_STATE_H
#define PLATFORM_ADAPTATION_SYSTEM_STATE_H

#include <memory>
#include <string>

#include "system_state_interface.h"

// The platform's system-state client. Each platform layer supplies the definitions.
class SystemState : public SystemStateInterface {
public:
    explicit SystemState(const std::string& clientName);
    ~SystemState() override;
    SystemState(const SystemState&) = delete;
    SystemState& operator=(const SystemState&) = delete;

    void setTVPowerStateCallback(TVPowerStateCallback callback, void* userData) override;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

#endif
