#ifndef AI_MANAGER_SYSTEM_STATE_MANAGER_H
#define AI_MANAGER_SYSTEM_STATE_MANAGER_H

#include "system_state_interface.h"

class AIRecognition;

// Forwards every TV power-state notification to the controller, unfiltered.
class SystemStateManager {
public:
    SystemStateManager();
    ~SystemStateManager();

    void setObserver(AIRecognition* pAIRecognition);
    void init(SystemStateInterface* systemState);
    void handleTVPowerStateChanged(TVPowerState state);

private:
    SystemStateInterface* m_systemState;
    AIRecognition* m_pAIRecognition;
};

void notifyTVPowerState(TVPowerState state, void* userData);

#endif
