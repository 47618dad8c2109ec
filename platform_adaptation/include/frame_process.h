#ifndef PLATFORM_ADAPTATION_FRAME_PROCESS_H
#define PLATFORM_ADAPTATION_FRAME_PROCESS_H

namespace frame {

// A member of the process framework (business or application-manager proxy).
class Proxy {
public:
    virtual ~Proxy() = default;
};

typedef Proxy* (*ProxyFactory)();

// Handle on the platform's process framework; obtained by value, destroyed after use.
class Process {
public:
    static Process getInstance();
    ~Process();
    Process(const Process&) = default;
    Process& operator=(const Process&) = default;

    // Creates the member with the factory and starts it before returning.
    int startAppMembersSync(ProxyFactory factory);
    // Blocks the calling thread for the life of the service: until the exit request of osal.h.
    int run();

private:
    Process() = default;
};

}  // namespace frame

frame::Proxy* CreateBizProxy();
frame::Proxy* CreateAppManagerProxy();

#endif
