#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "dbg_log.h"
#include "frame_process.h"
#include "osal.h"
#include "service_notify.h"

#define FRAME_TAG "[Platform Adaptation]"

namespace {

class HostProxy : public frame::Proxy {
public:
    explicit HostProxy(const char* name) : m_name(name) {}
    const char* name() const { return m_name; }

private:
    const char* m_name;
};

struct ProcessState {
    std::mutex mutex;
    std::vector<std::unique_ptr<frame::Proxy>> members;
};

ProcessState& processState() {
    static ProcessState* s = new ProcessState;
    return *s;
}

// Whether run() has begun, for the service manager's sake (below).
std::atomic<bool> g_runBegun{false};

// run() holds the main thread for the life of the service; it wakes only once an hour meanwhile.
constexpr unsigned int kRunWaitMs = 3600u * 1000u;

}  // namespace

namespace frame {

Process Process::getInstance() {
    return Process();
}

Process::~Process() = default;

int Process::startAppMembersSync(ProxyFactory factory) {
    if (factory == nullptr) {
        return -1;
    }
    Proxy* proxy = factory();
    if (proxy == nullptr) {
        return -1;
    }
    ProcessState& s = processState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.members.emplace_back(proxy);
    return 0;
}

// Under systemd (Type=notify) the service is ready once the daemon is wired and its support
// check done, which is when it enters run(); it is stopping once the exit request arrives.
int Process::run() {
    g_runBegun = true;
    host::notifyServiceManager("READY=1");
    while (!osalWaitExitRequest(kRunWaitMs)) {
    }
    host::notifyServiceManager("STOPPING=1");
    DBG_LOG(DBG_LEVEL_NOTICE, FRAME_TAG, "exit requested, leaving run().\n");
    return 0;
}

}  // namespace frame

namespace host {

// A daemon that leaves without run() (AIPQ unsupported: status 0 by design) would otherwise be a
// failed start to systemd, which takes a Type=notify exit before READY=1 for a broken protocol.
void notifyLeavingWithoutRun() {
    static std::atomic<bool> sent{false};
    if (!g_runBegun && !sent.exchange(true)) {
        // Two datagrams: systemd reads STOPPING=1 before READY=1 in one and would drop the latter.
        notifyServiceManager("READY=1");
        notifyServiceManager("STOPPING=1");
    }
}

}  // namespace host

frame::Proxy* CreateBizProxy() {
    DBG_LOG(DBG_LEVEL_DEBUG, FRAME_TAG, "business proxy started.\n");
    return new HostProxy("biz");
}

frame::Proxy* CreateAppManagerProxy() {
    DBG_LOG(DBG_LEVEL_DEBUG, FRAME_TAG, "app manager proxy started.\n");
    return new HostProxy("appmanager");
}
