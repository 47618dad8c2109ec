#ifndef PLATFORM_ADAPTATION_HOST_SERVICE_NOTIFY_H
#define PLATFORM_ADAPTATION_HOST_SERVICE_NOTIFY_H

namespace host {

// Sends `state` ("READY=1", "STOPPING=1") to the service manager when NOTIFY_SOCKET names one,
// as one datagram; returns whether it was sent. Without NOTIFY_SOCKET it does nothing.
bool notifyServiceManager(const char* state);

// Called as the daemon tears down (its frame capture is deleted first): when run() never began,
// tells the service manager that the process was ready, then that it is stopping, once, so that its exit
// with status 0 ends the unit as a success.
void notifyLeavingWithoutRun();

}  // namespace host

#endif
