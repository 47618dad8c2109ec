#ifndef AI_MANAGER_PROCESS_ENTRY_H
#define AI_MANAGER_PROCESS_ENTRY_H

// Start-up steps of the daemon before its objects are built.

// Lowers the process priority to 19 (the name is part of the interface).
void setPorcessPriority();
// Message-bus environment, business readiness, then the framework's proxies.
void initBizAccessEnv();
// Blocks until "/var/run/BIZREADY2" exists or the process is asked to end; never gives up.
int wait_for_bizready();
// How long to sleep so that nothing starts in the first 30 s after boot.
unsigned int uptimeFloorWaitSeconds(long monotonicSeconds);

#endif
