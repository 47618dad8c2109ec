#include "system_state_manager.h"

#include "ai_recognition.h"
#include "aipq_log.h"

SystemStateManager::SystemStateManager() : m_systemState(nullptr), m_pAIRecognition(nullptr) {}

// The client's owner outlives it or unsubscribes; nothing to undo here.
SystemStateManager::~SystemStateManager() {}

void SystemStateManager::setObserver(AIRecognition* pAIRecognition) {
    AM_ENTER();
    if (pAIRecognition == nullptr) {
        AM_LOGE("pAIRecognition is NULL.\n");
        return;
    }
    m_pAIRecognition = pAIRecognition;
}

void SystemStateManager::init(SystemStateInterface* systemState) {
    AM_ENTER();
    if (systemState == nullptr) {
        AM_LOGE("set SystemState ptr is NULL\n");
        return;
    }
    m_systemState = systemState;
    m_systemState->setTVPowerStateCallback(notifyTVPowerState, this);
}

void SystemStateManager::handleTVPowerStateChanged(TVPowerState state) {
    if (m_pAIRecognition == nullptr) {
        AM_LOGE("m_pAIRecognition is NULL.\n");
        return;
    }
    m_pAIRecognition->handleTVPowerStateChanged(state);
}

void notifyTVPowerState(TVPowerState state, void* userData) {
    AM_LOGD("received tv power state changed: %d\n", state);
    if (userData == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return;
    }
    static_cast<SystemStateManager*>(userData)->handleTVPowerStateChanged(state);
}
