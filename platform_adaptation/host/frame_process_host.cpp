#include <signal.h>

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include "dbg_log.h"
#include "frame_process.h"
#include "host_platform.h"

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
    std::condition_variable exitCond;
    bool exitRequested = false;
    std::vector<std::unique_ptr<frame::Proxy>> members;
};

ProcessState& processState() {
    static ProcessState* s = new ProcessState;
    return *s;
}

// SIGTERM and SIGINT are blocked in every thread (threads inherit the mask), and a dedicated
// thread collects them, so run() can end the service in an orderly way.
void installSignalWatcher() {
    static std::once_flag once;
    std::call_once(once, [] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        pthread_t watcher;
        auto* heapSet = new sigset_t(set);
        pthread_create(
            &watcher, nullptr,
            [](void* arg) -> void* {
                auto* s = static_cast<sigset_t*>(arg);
                int sig = 0;
                if (sigwait(s, &sig) == 0) {
                    DBG_LOG(DBG_LEVEL_NOTICE, FRAME_TAG, "signal %d received, leaving run().\n", sig);
                    host::requestProcessExit();
                }
                delete s;
                return nullptr;
            },
            heapSet);
        pthread_detach(watcher);
    });
}

}  // namespace

namespace host {
void requestProcessExit() {
    ProcessState& s = processState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.exitRequested = true;
    s.exitCond.notify_all();
}
}  // namespace host

namespace frame {

Process Process::getInstance() {
    installSignalWatcher();
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

int Process::run() {
    ProcessState& s = processState();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.exitCond.wait(lock, [&s] { return s.exitRequested; });
    return 0;
}

}  // namespace frame

frame::Proxy* CreateBizProxy() {
    DBG_LOG(DBG_LEVEL_DEBUG, FRAME_TAG, "business proxy started.\n");
    return new HostProxy("biz");
}

frame::Proxy* CreateAppManagerProxy() {
    DBG_LOG(DBG_LEVEL_DEBUG, FRAME_TAG, "app manager proxy started.\n");
    return new HostProxy("appmanager");
}
