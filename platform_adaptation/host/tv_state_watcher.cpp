#include "tv_state_watcher.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "dbg_log.h"
#include "tv_state_dir.h"

#define PA_TAG "[Platform Adaptation]"

namespace host {

int readTvState(const std::string& key) {
    ReadStatus status = ReadStatus::Ok;
    int value = readTvInt(key, &status);
    if (status == ReadStatus::Garbage) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s holds no integer, read as 0.\n", tvStatePath(key).c_str());
    }
    return value;
}

TvStateWatcher::TvStateWatcher(std::string name, Handler handler)
    : m_name(std::move(name)), m_handler(std::move(handler)), m_inotifyFd(-1), m_stopFd(-1) {
    std::string dir = tvStateDir();
    if (!ensureTvStateDir()) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: cannot create %s: %s\n", m_name.c_str(), dir.c_str(),
                strerror(errno));
    }
    m_inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (m_inotifyFd < 0) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: inotify_init1: %s\n", m_name.c_str(), strerror(errno));
    } else if (inotify_add_watch(m_inotifyFd, dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: cannot watch %s: %s\n", m_name.c_str(), dir.c_str(),
                strerror(errno));
    }
    m_stopFd = eventfd(0, EFD_CLOEXEC);
    if (m_stopFd < 0) {
        // Without a way to stop it, no thread is started: the client answers queries but notifies nothing.
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: eventfd: %s\n", m_name.c_str(), strerror(errno));
        return;
    }
    m_thread = std::thread([this] { run(); });
}

TvStateWatcher::~TvStateWatcher() {
    if (m_thread.joinable()) {
        uint64_t one = 1;
        while (write(m_stopFd, &one, sizeof(one)) < 0 && errno == EINTR) {
        }
        m_thread.join();
    }
    if (m_stopFd >= 0) {
        close(m_stopFd);
    }
    if (m_inotifyFd >= 0) {
        close(m_inotifyFd);
    }
}

void TvStateWatcher::run() {
    DBG_LOG(DBG_LEVEL_DEBUG, PA_TAG, "%s: watching %s\n", m_name.c_str(), tvStateDir().c_str());
    struct pollfd fds[2];
    fds[0].fd = m_stopFd;
    fds[0].events = POLLIN;
    fds[1].fd = m_inotifyFd;  // poll ignores a negative descriptor
    fds[1].events = POLLIN;
    // Large enough for many events at once; inotify never splits one event across reads.
    alignas(struct inotify_event) char buffer[16 * (sizeof(struct inotify_event) + NAME_MAX + 1)];
    for (;;) {
        fds[0].revents = 0;
        fds[1].revents = 0;
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: poll: %s\n", m_name.c_str(), strerror(errno));
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if ((fds[1].revents & POLLIN) == 0) {
            continue;
        }
        ssize_t length = read(m_inotifyFd, buffer, sizeof(buffer));
        if (length < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: read inotify: %s\n", m_name.c_str(), strerror(errno));
                return;
            }
            continue;
        }
        dispatch(buffer, static_cast<size_t>(length));
    }
}

void TvStateWatcher::dispatch(const char* buffer, size_t length) {
    size_t offset = 0;
    while (offset + sizeof(struct inotify_event) <= length) {
        const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
        offset += sizeof(struct inotify_event) + event->len;
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
            // Writes were lost; hand over every key so that the subscriber catches up with the files.
            DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: inotify queue overflow, re-reading every key.\n",
                    m_name.c_str());
            for (const std::string& key : tvStateKeys()) {
                m_handler(key);
            }
            continue;
        }
        if ((event->mask & IN_IGNORED) != 0) {
            DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: %s is no longer watched.\n", m_name.c_str(),
                    tvStateDir().c_str());
            continue;
        }
        if (event->len == 0 || event->name[0] == '\0' || event->name[0] == '.') {
            continue;
        }
        m_handler(std::string(event->name));
    }
}

}  // namespace host
