#include "service_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>

#include <cstring>
#include <vector>

#include "osal.h"
#include "service_log.h"

namespace ai_service {

namespace proto = ai_service_protocol;

namespace {

// How often an idle service re-checks which queue the name stands for.
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

}  // namespace

ServiceRunner::ServiceRunner(const Options& options) : m_options(options) {}

ServiceRunner::~ServiceRunner() {
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
    int32_t state;
    if (!command.empty() && forced != m_options.answers.end()) {
        state = forced->second;
    } else {
        state = m_handler.handle(message, length, m_segment + proto::kPayloadOffset);
    }
    // Results are in place before the state tells the client to read them.
    __atomic_store_n(stateWord(m_segment), state, __ATOMIC_RELEASE);
    AS_LOGD("\"%s\" answered %d.\n", text.c_str(), state);
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

    std::vector<char> buffer;
    int64_t lastFollow = monotonicMs();
    while (!m_stop) {
        struct mq_attr attr;
        long size = mq_getattr(m_queue, &attr) == 0 ? attr.mq_msgsize : proto::kMessageSize;
        buffer.resize(static_cast<size_t>(size > proto::kMessageSize ? size : proto::kMessageSize));
        struct timespec deadline = realtimeIn(kFollowIntervalMs);
        ssize_t n = mq_timedreceive(m_queue, buffer.data(), buffer.size(), nullptr, &deadline);
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
            struct timespec pause = {0, kFollowIntervalMs * 1000000L};
            nanosleep(&pause, nullptr);
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
