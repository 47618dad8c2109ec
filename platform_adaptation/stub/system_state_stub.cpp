// The TV's power state never changes here, so the callback is never called.
#include "system_state.h"

struct SystemState::Impl {};

SystemState::SystemState(const std::string&) : m_impl(new Impl) {}

SystemState::~SystemState() = default;

void SystemState::setTVPowerStateCallback(TVPowerStateCallback, void*) {}
