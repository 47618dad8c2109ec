#include "service_notify.h"

#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace host {

// The protocol of sd_notify(3) without libsystemd: one datagram of "NAME=value" lines to the
// AF_UNIX socket named by NOTIFY_SOCKET, a path or, after '@', an abstract name.
bool notifyServiceManager(const char* state) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || state == nullptr) {
        return false;
    }
    size_t length = std::strlen(path);
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if ((path[0] != '/' && path[0] != '@') || length < 2 || length > sizeof(address.sun_path)) {
        return false;
    }
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    socklen_t size = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length);
    ssize_t sent = ::sendto(fd, state, std::strlen(state), MSG_NOSIGNAL,
                            reinterpret_cast<const struct sockaddr*>(&address), size);
    ::close(fd);
    return sent == static_cast<ssize_t>(std::strlen(state));
}

}  // namespace host
