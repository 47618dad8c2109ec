#include "service_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "osal.h"
#include "service_log.h"

namespace ai_service {

namespace proto = ai_service_protocol;

namespace {

// How often an idle service re-checks which queue the name stands for when it cannot watch it.
constexpr long kFollowIntervalMs = 250;

int64_t monotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct timespec realtimeIn(long ms) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += (ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

int32_t* stateWord(uint8_t* segment) {
    return reinterpret_cast<int32_t*>(segment + proto::kHeaderStateOffset);
}

std::string printable(const char* message, size_t length) {
    std::string text;
    for (size_t i = 0; i < length && message[i] != '\0'; ++i) {
        unsigned char c = static_cast<unsigned char>(message[i]);
        text += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
    }
    return text;
}

// Mount points in /proc/self/mountinfo escape blanks and backslashes as octal.
std::string unescapeMountPath(const std::string& field) {
    std::string path;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            path += static_cast<char>(std::strtol(field.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            path += field[i];
        }
    }
    return path;
}

// Where file systems of type mqueue are mounted in our mount namespace.
std::vector<std::string> mqueueMounts() {
    std::vector<std::string> mounts;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        size_t dash = line.find(" - ");
        if (dash == std::string::npos || line.compare(dash + 3, 7, "mqueue ") != 0) {
            continue;
        }
        std::istringstream fields(line.substr(0, dash));
        std::string id, parent, device, root, mountPoint;
        if (fields >> id >> parent >> device >> root >> mountPoint) {
            mounts.push_back(unescapeMountPath(mountPoint));
        }
    }
    return mounts;
}

}  // namespace

ServiceRunner::ServiceRunner(const Options& options) : m_options(options) {
    // The signal handler's way into a loop that waits without a time-out.
    if (pipe2(m_wake, O_NONBLOCK | O_CLOEXEC) != 0) {
        m_wake[0] = m_wake[1] = -1;
    }
}

void ServiceRunner::requestStop() {
    m_stop = true;
    if (m_wake[1] >= 0) {
        const char byte = 0;
        ssize_t written = write(m_wake[1], &byte, 1);
        (void)written;  // a full pipe already wakes the loop
    }
}

ServiceRunner::~ServiceRunner() {
    for (int fd : {m_watch, m_wake[0], m_wake[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    // The queue belongs to the client, which unlinks it; the segment outlives both sides.
    if (m_queue != static_cast<mqd_t>(-1)) {
        mq_close(m_queue);
    }
    if (m_segment != nullptr) {
        shmdt(m_segment);
    }
    if (m_trace != nullptr) {
        std::fclose(m_trace);
    }
    if (m_record != nullptr) {
        std::fclose(m_record);
    }
}

bool ServiceRunner::attachSegment() {
    int id = shmget(proto::kShmKey, proto::kShmSize, proto::kShmFlags);
    if (id < 0) {
        int error = errno;
        AS_LOGE("shmget of key %d, %d bytes failed: %s(%d).\n", proto::kShmKey, proto::kShmSize,
                strerror(error), error);
        if (error == EINVAL) {
            AS_LOGE(
                "a shared memory segment with key %d exists with a different size; remove it with \"ipcrm "
                "-M %d\".\n",
                proto::kShmKey, proto::kShmKey);
        }
        return false;
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        AS_LOGE("shmat failed: %s(%d).\n", strerror(errno), errno);
        return false;
    }
    if (m_segment != nullptr) {
        shmdt(m_segment);
    }
    m_segment = static_cast<uint8_t*>(addr);
    m_segmentId = id;
    return true;
}

void ServiceRunner::followSegment() {
    if (shmget(proto::kShmKey, 0, 0) == m_segmentId) {
        return;
    }
    // On failure the old segment stays: a request on it then still gets its answer.
    if (attachSegment()) {
        AS_LOGN("segment with key %d was removed or replaced: moved to segment %d.\n", proto::kShmKey,
                m_segmentId);
    }
}

bool ServiceRunner::openQueue(bool create) {
    struct mq_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    attr.mq_maxmsg = proto::kQueueMaxMessages;
    attr.mq_msgsize = proto::kMessageSize;
    mqd_t queue = create ? mq_open(proto::kQueueName, O_RDONLY | O_CREAT, 0666, &attr)
                         : mq_open(proto::kQueueName, O_RDONLY);
    if (queue == static_cast<mqd_t>(-1)) {
        return false;
    }
    if (create) {
        // Past the umask, so that a client running as another user can still send; only the
        // owner may change it, and then it was already right or not ours to change.
        (void)fchmod(queue, 0666);
    }
    struct stat st;
    if (fstat(queue, &st) != 0) {
        AS_LOGE("fstat of the message queue failed: %s(%d).\n", strerror(errno), errno);
        mq_close(queue);
        return false;
    }
    if (m_queue != static_cast<mqd_t>(-1)) {
        mq_close(m_queue);
    }
    m_queue = queue;
    m_queueDev = st.st_dev;
    m_queueIno = st.st_ino;
    return true;
}

void ServiceRunner::followQueue() {
    mqd_t probe = mq_open(proto::kQueueName, O_RDONLY);
    if (probe == static_cast<mqd_t>(-1)) {
        if (errno == ENOENT) {
            if (!m_nameGoneLogged) {
                AS_LOGN("message queue %s was removed (its client stopped); waiting for a new one.\n",
                        proto::kQueueName);
                m_nameGoneLogged = true;
            }
        } else {
            AS_LOGE("cannot re-open message queue %s: %s(%d).\n", proto::kQueueName, strerror(errno), errno);
        }
        return;
    }
    struct stat st;
    bool same = fstat(probe, &st) == 0 && st.st_dev == m_queueDev && st.st_ino == m_queueIno;
    mq_close(probe);
    if (same) {
        return;
    }
    if (openQueue(false)) {
        m_nameGoneLogged = false;
        AS_LOGN("message queue %s was created anew (client restarted): listening on the new one.\n",
                proto::kQueueName);
    }
}

bool ServiceRunner::watchQueueDirectory() {
    // Another namespace's mqueue mount shows other queues under the same name: only the one that
    // holds our open queue tells us about ours.
    for (const std::string& dir : mqueueMounts()) {
        struct stat st;
        if (stat(dir.c_str(), &st) != 0 || st.st_dev != m_queueDev) {
            continue;
        }
        int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd < 0) {
            AS_LOGE("inotify_init1 failed: %s(%d).\n", strerror(errno), errno);
            return false;
        }
        if (inotify_add_watch(fd, dir.c_str(), IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM) < 0) {
            AS_LOGE("cannot watch %s: %s(%d).\n", dir.c_str(), strerror(errno), errno);
            close(fd);
            return false;
        }
        m_watch = fd;
        AS_LOGD("following message queue %s through %s.\n", proto::kQueueName, dir.c_str());
        return true;
    }
    AS_LOGN(
        "no mqueue file system of this IPC namespace is mounted: looking for a replaced queue every %ld "
        "ms.\n",
        kFollowIntervalMs);
    return false;
}

bool ServiceRunner::drainQueueEvents() {
    alignas(struct inotify_event) char buffer[4096];
    bool concerned = false;
    for (;;) {
        ssize_t n = read(m_watch, buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + at);
            if ((event->mask & (IN_Q_OVERFLOW | IN_IGNORED | IN_UNMOUNT)) != 0 ||
                (event->len > 0 && std::strcmp(event->name, proto::kQueueName + 1) == 0)) {
                concerned = true;
            }
            if ((event->mask & (IN_IGNORED | IN_UNMOUNT)) != 0) {
                // The file system went away under the watch: from now on we look for ourselves.
                AS_LOGN("mqueue file system unmounted: looking for a replaced queue every %ld ms.\n",
                        kFollowIntervalMs);
                close(m_watch);
                m_watch = -1;
                return true;
            }
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
    }
    return concerned;
}

void ServiceRunner::dropStaleBacklog() {
    // Left from before we ran: only the newest can still have its client waiting.
    struct mq_attr attr;
    if (mq_getattr(m_queue, &attr) != 0 || attr.mq_curmsgs <= 1) {
        return;
    }
    std::vector<char> buffer(static_cast<size_t>(attr.mq_msgsize));
    for (long i = 0; i + 1 < attr.mq_curmsgs; ++i) {
        struct timespec now = realtimeIn(0);
        ssize_t n = mq_timedreceive(m_queue, buffer.data(), buffer.size(), nullptr, &now);
        if (n < 0) {
            break;
        }
        trace(buffer.data(), static_cast<size_t>(n));
        AS_LOGN("dropping stale command \"%s\" queued before the service started.\n",
                printable(buffer.data(), static_cast<size_t>(n)).c_str());
    }
}

void ServiceRunner::trace(const char* message, size_t length) {
    if (m_trace != nullptr) {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        std::fprintf(m_trace, "%ld.%06ld %s\n", static_cast<long>(ts.tv_sec), ts.tv_nsec / 1000L,
                     printable(message, length).c_str());
        std::fflush(m_trace);
    }
    if (m_record != nullptr) {
        std::fwrite(message, 1, length, m_record);
        std::fflush(m_record);
    }
}

void ServiceRunner::serve(const char* message, size_t length) {
    trace(message, length);
    ++m_commands;
    followSegment();
    std::string text = printable(message, length);
    int32_t posted = __atomic_load_n(stateWord(m_segment), __ATOMIC_ACQUIRE);
    // A client writes 1 before every command. Anything else is a command nobody waits for, such
    // as the last one resent by a client on its way out: answering it could end a later request.
    if (posted != proto::kStatePosted) {
        AS_LOGN("ignoring \"%s\": no request is posted (state %d).\n", text.c_str(), posted);
        return;
    }
    if (m_options.noAnswer) {
        AS_LOGD("received \"%s\", not answering (--no-answer).\n", text.c_str());
        return;
    }
    if (m_options.delayMs > 0) {
        osalUsleep(static_cast<unsigned int>(m_options.delayMs) * 1000u);
    }
    std::string command = CommandHandler::commandOf(message, length);
    auto forced = m_options.answers.find(command);
    if (!command.empty() && forced != m_options.answers.end()) {
        __atomic_store_n(stateWord(m_segment), forced->second, __ATOMIC_RELEASE);
    } else {
        answer(message, length, m_segment + proto::kPayloadOffset, stateWord(m_segment));
    }
    AS_LOGD("\"%s\" answered %d.\n", text.c_str(), __atomic_load_n(stateWord(m_segment), __ATOMIC_ACQUIRE));
}

void ServiceRunner::answer(const char* message, size_t length, uint8_t* payload, int32_t* state) {
    int32_t result = m_handler.handle(message, length, payload);
    // Results are in place before the state tells the client to read them.
    __atomic_store_n(state, result, __ATOMIC_RELEASE);
}

int ServiceRunner::run() {
    if (!m_options.traceFile.empty()) {
        m_trace = std::fopen(m_options.traceFile.c_str(), "a");
        if (m_trace == nullptr) {
            AS_LOGE("cannot open trace file %s: %s.\n", m_options.traceFile.c_str(), strerror(errno));
            return 1;
        }
    }
    if (!m_options.recordFile.empty()) {
        m_record = std::fopen(m_options.recordFile.c_str(), "ab");
        if (m_record == nullptr) {
            AS_LOGE("cannot open record file %s: %s.\n", m_options.recordFile.c_str(), strerror(errno));
            return 1;
        }
    }
    if (!attachSegment()) {
        return 1;
    }
    if (!openQueue(true)) {
        AS_LOGE("cannot open message queue %s: %s(%d).\n", proto::kQueueName, strerror(errno), errno);
        return 1;
    }
    AS_LOGN("listening on %s, segment key %d.\n", proto::kQueueName, proto::kShmKey);
    dropStaleBacklog();

    if (watchQueueDirectory()) {
        followQueue();  // replaced between our open and the watch
    }

    std::vector<char> buffer;
    int64_t lastFollow = monotonicMs();
    while (!m_stop) {
        // A stop requested after the test above still wakes the wait: the handler writes m_wake.
        struct pollfd fds[3] = {{m_queue, POLLIN, 0}, {m_wake[0], POLLIN, 0}, {m_watch, POLLIN, 0}};
        int ready = poll(fds, m_watch >= 0 ? 3 : 2, m_watch >= 0 ? -1 : static_cast<int>(kFollowIntervalMs));
        if (ready < 0 && errno != EINTR) {
            AS_LOGE("poll failed: %s(%d).\n", strerror(errno), errno);
            struct timespec pause = {0, kFollowIntervalMs * 1000000L};
            nanosleep(&pause, nullptr);
        }
        // Commands still in the old queue are answered before we move to a new one.
        if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
            struct mq_attr attr;
            long size = mq_getattr(m_queue, &attr) == 0 ? attr.mq_msgsize : proto::kMessageSize;
            buffer.resize(static_cast<size_t>(size > proto::kMessageSize ? size : proto::kMessageSize));
            struct timespec now = realtimeIn(0);
            ssize_t n = mq_timedreceive(m_queue, buffer.data(), buffer.size(), nullptr, &now);
            if (n >= 0) {
                serve(buffer.data(), static_cast<size_t>(n));
                if (m_handler.stopRequested()) {
                    AS_LOGN("stopped by %s.\n", proto::kCmdStopAiService);
                    return 0;
                }
                if (m_options.exitAfter > 0 && m_commands >= m_options.exitAfter) {
                    AS_LOGN("ending after %ld commands (--exit-after).\n", m_commands);
                    return 0;
                }
            } else if (errno != ETIMEDOUT && errno != EINTR) {
                AS_LOGE("mq_timedreceive failed: %s(%d).\n", strerror(errno), errno);
            }
        }
        if (m_watch >= 0) {
            if (ready > 0 && (fds[2].revents & POLLIN) != 0 && drainQueueEvents()) {
                followQueue();
            }
            continue;
        }
        int64_t now = monotonicMs();
        if (now - lastFollow >= kFollowIntervalMs) {
            followQueue();
            lastFollow = now;
        }
    }
    AS_LOGN("stopped by signal.\n");
    return 0;
}

}  // namespace ai_service
