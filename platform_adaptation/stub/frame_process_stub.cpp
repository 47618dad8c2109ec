// The process framework: members are created and kept; run() holds the main thread for good.
#include "frame_process.h"
#include "osal.h"

namespace {

class StubProxy : public frame::Proxy {};

}  // namespace

namespace frame {

Process Process::getInstance() {
    return Process();
}

Process::~Process() = default;

int Process::startAppMembersSync(ProxyFactory factory) {
    // Kept for the life of the process, as the framework keeps its members.
    return factory != nullptr && factory() != nullptr ? 0 : -1;
}

int Process::run() {
    while (!osalWaitExitRequest(3600u * 1000u)) {
    }
    return 0;
}

}  // namespace frame

frame::Proxy* CreateBizProxy() {
    return new StubProxy;
}

frame::Proxy* CreateAppManagerProxy() {
    return new StubProxy;
}
