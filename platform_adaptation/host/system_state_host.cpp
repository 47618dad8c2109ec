// Host system-state client: every write of power_state in the TV-state directory (see tv_state_dir.h)
// notifies the power-state callback on the client's watcher thread.

#include <string>

#include "system_state.h"
#include "tv_state_dir.h"
#include "tv_state_watcher.h"

struct SystemState::Impl {
    explicit Impl(const std::string& clientName)
        : watcher("SystemState " + clientName, {host::tvkey::kPowerState},
                  [this](const std::string&, int value) {
                      powerState.invoke(static_cast<TVPowerState>(value));
                  }) {}

    host::CallbackSlot<TVPowerStateCallback> powerState;
    // Last member: its thread stops before the slot it calls is destroyed.
    host::TvStateWatcher watcher;
};

SystemState::SystemState(const std::string& clientName) : m_impl(new Impl(clientName)) {}

SystemState::~SystemState() = default;

void SystemState::setTVPowerStateCallback(TVPowerStateCallback callback, void* userData) {
    m_impl->powerState.set(callback, userData);
}
