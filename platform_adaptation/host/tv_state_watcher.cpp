#include "tv_state_watcher.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "dbg_log.h"
#include "tv_state_dir.h"

#define PA_TAG "[Platform Adaptation]"

namespace host {

namespace {

constexpr uint32_t kDirEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// A symlink standing for the directory is swapped by renaming another link over it, which leaves
// the old directory alive and silent: only the link itself tells.
constexpr uint32_t kLinkEvents = IN_DONT_FOLLOW | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
// How often a missing directory is looked for; with the directory in place the thread sleeps
// until something happens.
constexpr int kLookAgainMs = 1000;

}  // namespace

int readTvState(const std::string& key) {
    ReadStatus status = ReadStatus::Ok;
    int value = readTvInt(key, &status);
    // The gates read some keys every cycle: a broken entry is told once, until it reads otherwise.
    static std::mutex mutex;
    static std::map<std::string, ReadStatus> told;
    std::lock_guard<std::mutex> lock(mutex);
    const ReadStatus before = std::exchange(told[key], status);
    if (status != before && (status == ReadStatus::Garbage || status == ReadStatus::Unreadable)) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s %s, read as 0.\n", tvStatePath(key).c_str(),
                readProblem(status));
    }
    return value;
}

TvStateWatcher::TvStateWatcher(std::string name, std::vector<std::string> keys, Handler handler)
    : m_name(std::move(name)),
      m_keys(std::move(keys)),
      m_handler(std::move(handler)),
      m_inotifyFd(-1),
      m_stopFd(-1) {
    std::string dir = tvStateDir();
    if (!ensureTvStateDir()) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: cannot create %s: %s\n", m_name.c_str(), dir.c_str(),
                strerror(errno));
    }
    m_inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (m_inotifyFd < 0) {
        DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: inotify_init1: %s\n", m_name.c_str(), strerror(errno));
    } else {
        watchDirectory();
    }
    // After the watch: a write in between is both read here and handed over.
    for (const std::string& key : m_keys) {
        m_values.push_back(readTvState(key));
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

bool TvStateWatcher::watchDirectory() {
    const std::string dir = tvStateDir();
    const int watch = inotify_add_watch(m_inotifyFd, dir.c_str(), kDirEvents);
    if (watch < 0) {
        if (m_dirWatch >= 0) {
            // Moved away perhaps, but no longer the TV's directory.
            inotify_rm_watch(m_inotifyFd, m_dirWatch);
            m_dirWatch = -1;
        }
        if (!m_lost) {
            DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: cannot watch %s: %s; looking again every second.\n",
                    m_name.c_str(), dir.c_str(), strerror(errno));
            m_lost = true;
        }
        return false;
    }
    struct stat st {};
    const bool isLink = lstat(dir.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    const int linkWatch = isLink ? inotify_add_watch(m_inotifyFd, dir.c_str(), kLinkEvents) : -1;
    if (m_linkWatch >= 0 && m_linkWatch != linkWatch) {
        inotify_rm_watch(m_inotifyFd, m_linkWatch);
    }
    m_linkWatch = linkWatch;
    if (watch == m_dirWatch) {
        return false;
    }
    if (m_dirWatch >= 0) {
        inotify_rm_watch(m_inotifyFd, m_dirWatch);
    }
    m_dirWatch = watch;
    m_lost = false;
    DBG_LOG(DBG_LEVEL_NOTICE, PA_TAG, "%s: watching %s\n", m_name.c_str(), dir.c_str());
    return true;
}

void TvStateWatcher::handOver(size_t index, bool onlyWhenChanged) {
    const int value = readTvState(m_keys[index]);
    if (onlyWhenChanged && value == m_values[index]) {
        return;
    }
    m_values[index] = value;
    m_handler(m_keys[index], value);
}

void TvStateWatcher::run() {
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
        const int timeout = (m_inotifyFd >= 0 && m_dirWatch < 0) ? kLookAgainMs : -1;
        const int ready = poll(fds, 2, timeout);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: poll: %s\n", m_name.c_str(), strerror(errno));
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        bool lookAgain = ready == 0;
        if ((fds[1].revents & POLLIN) != 0) {
            ssize_t length = read(m_inotifyFd, buffer, sizeof(buffer));
            if (length < 0 && errno != EAGAIN && errno != EINTR) {
                DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: read inotify: %s\n", m_name.c_str(), strerror(errno));
                return;
            }
            lookAgain = length > 0 && dispatch(buffer, static_cast<size_t>(length));
        }
        // Writes into a directory that was not watched yet went unnoticed: catch up with the files.
        if (lookAgain && watchDirectory()) {
            for (size_t i = 0; i < m_keys.size(); ++i) {
                handOver(i, true);
            }
        }
    }
}

bool TvStateWatcher::dispatch(const char* buffer, size_t length) {
    bool lookAgain = false;
    size_t offset = 0;
    while (offset + sizeof(struct inotify_event) <= length) {
        const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
        offset += sizeof(struct inotify_event) + event->len;
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
            // Writes were lost; hand over every key so that the subscriber catches up with the files.
            DBG_LOG(DBG_LEVEL_ERROR, PA_TAG, "%s: inotify queue overflow, re-reading every key.\n",
                    m_name.c_str());
            for (size_t i = 0; i < m_keys.size(); ++i) {
                handOver(i, false);
            }
            lookAgain = true;
            continue;
        }
        if (event->wd == m_linkWatch || (event->wd == m_dirWatch && event->len == 0)) {
            // The directory or its symlink went away, moved or was replaced.
            if ((event->mask & IN_IGNORED) != 0) {
                (event->wd == m_linkWatch ? m_linkWatch : m_dirWatch) = -1;
            }
            lookAgain = true;
            continue;
        }
        if (event->wd != m_dirWatch || event->name[0] == '\0' || event->name[0] == '.') {
            continue;
        }
        for (size_t i = 0; i < m_keys.size(); ++i) {
            if (m_keys[i] == event->name) {
                handOver(i, false);
            }
        }
    }
    return lookAgain;
}

}  // namespace host
