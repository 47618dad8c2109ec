#include "recognition_process_manager.h"

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "ai_common.h"
#include "aipq_log.h"

using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::TelvoAiPQPredict;
namespace proto = ai_service_protocol;

namespace {

constexpr int kPollStepMs = 50;
constexpr int kStopPollStepMs = 1000;
constexpr int kRequestLimitMs = 10000;
constexpr int kInitFailureLines = 11;
constexpr int kSendReadyWaitSeconds = 1;

// The request functions take the command as a writable buffer, as the queue message is.
struct Command {
    explicit Command(const char* command) { std::snprintf(text, sizeof(text), "%s", command); }
    char text[proto::kMessageSize];
};

// The state word is shared with another process; whole aligned 32-bit accesses, and the
// acquire/release pair orders the result bytes against the state the service writes last.
int32_t* stateWord(unsigned char* shm) {
    return reinterpret_cast<int32_t*>(shm + proto::kHeaderStateOffset);
}

int32_t loadState(unsigned char* shm) {
    return __atomic_load_n(stateWord(shm), __ATOMIC_ACQUIRE);
}

void storeState(unsigned char* shm, int32_t value) {
    __atomic_store_n(stateWord(shm), value, __ATOMIC_RELEASE);
}

bool sameQueue(mqd_t a, mqd_t b) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// The header as the client leaves it after attaching: size word, state and reserved bytes.
void writeHeader(unsigned char* shm) {
    std::memset(shm, 0, proto::kPayloadOffset);
    uint32_t size = proto::kShmSize;
    std::memcpy(shm + proto::kHeaderSizeOffset, &size, sizeof(size));
}

}  // namespace

RecognitionProcessManager::RecognitionProcessManager()
    : RecognitionManagerBase(),
      m_pShareMemory(nullptr),
      m_shareMemoryId(-1),
      m_shareMemoryFailureLogged(false),
      m_loopSendMessageQueue(false),
      m_sendThread(),
      m_requestMutex(),
      m_envMutex(),
      m_messageQueueOpened(false),
      m_sendThreadWaiting(false),
      m_sendThreadEnded(false) {
    std::memset(m_sendMessage, 0, sizeof(m_sendMessage));
    pthread_mutex_init(&m_sendMutex, nullptr);
    pthread_cond_init(&m_sendCond, nullptr);
    pthread_cond_init(&m_sendReadyCond, nullptr);
    start();
}

RecognitionProcessManager::~RecognitionProcessManager() {
    // The segment stays attached and in place: the AI service and the capture outlive us.
    stop();
    pthread_mutex_destroy(&m_sendMutex);
    pthread_cond_destroy(&m_sendCond);
    pthread_cond_destroy(&m_sendReadyCond);
}

void RecognitionProcessManager::start() {
    initShareMemory();
    m_loopSendMessageQueue = true;
    OsalThreadAttr attr;
    osalThreadAttrInit(&attr);
    int rc =
        osalThreadCreate(&m_sendThread, &attr, threadSendMessageQueueForAiService, this, __FILE__, __LINE__);
    osalThreadAttrDestroy(&attr);
    if (rc != 0) {
        m_loopSendMessageQueue = false;
        pthread_mutex_lock(&m_sendMutex);
        m_sendThreadEnded = true;
        pthread_mutex_unlock(&m_sendMutex);
        AM_LOGE("pthread_create() failed.\n");
        return;
    }
    AM_LOGD("create send message queue thread success.\n");
}

void RecognitionProcessManager::stop() {
    AM_LOGE("m_loopSendMessageQueue: %d.\n", m_loopSendMessageQueue.load() ? 1 : 0);
    if (!m_loopSendMessageQueue) {
        return;
    }
    m_loopSendMessageQueue = false;
    pthread_mutex_lock(&m_sendMutex);
    pthread_cond_signal(&m_sendCond);
    pthread_cond_broadcast(&m_sendReadyCond);
    pthread_mutex_unlock(&m_sendMutex);
    pthread_join(m_sendThread, nullptr);
}

bool RecognitionProcessManager::initShareMemory() {
    AM_LOGD("shmget key: %d, allocSize: %d.\n", proto::kShmKey, proto::kShmSize);
    int id = shmget(proto::kShmKey, proto::kShmSize, proto::kShmFlags);
    if (id < 0) {
        AM_LOGE("shmget Error.\n");
        return false;
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        AM_LOGE("shmat Error.\n");
        return false;
    }
    m_pShareMemory = static_cast<unsigned char*>(addr);
    m_shareMemoryId = id;
    std::memset(m_pShareMemory, 0, proto::kShmSize);
    writeHeader(m_pShareMemory);
    AM_LOGD("init share memory.\n");
    return true;
}

void RecognitionProcessManager::followShareMemory() {
    if (m_pShareMemory != nullptr && shmget(proto::kShmKey, 0, 0) == m_shareMemoryId) {
        return;
    }
    // Removed ("ipcrm -M") or replaced: the capture writes into whatever the key names, and so
    // must the requests. Made here when nobody has made it yet.
    bool created = true;
    int id = shmget(proto::kShmKey, proto::kShmSize, proto::kShmFlags | IPC_EXCL);
    if (id < 0 && errno == EEXIST) {
        created = false;
        id = shmget(proto::kShmKey, proto::kShmSize, 0);
    }
    void* addr = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        if (!m_shareMemoryFailureLogged) {
            AM_LOGE("%s Error.\n", id < 0 ? "shmget" : "shmat");
            m_shareMemoryFailureLogged = true;
        }
        return;
    }
    unsigned char* segment = static_cast<unsigned char*>(addr);
    // One made by someone else already holds the picture the capture has just put there: only
    // its header is ours to reset.
    if (created) {
        std::memset(segment, 0, proto::kShmSize);
    }
    writeHeader(segment);
    // Unlike the first one, let go: a removed segment lives on while anyone has it attached.
    if (m_pShareMemory != nullptr) {
        shmdt(m_pShareMemory);
    }
    m_pShareMemory = segment;
    m_shareMemoryId = id;
    m_shareMemoryFailureLogged = false;
    AM_LOGN("shared memory with key %d was removed or replaced: %s segment %d.\n", proto::kShmKey,
            created ? "made anew as" : "moved to", id);
}

void* threadSendMessageQueueForAiService(void* manager) {
    AM_LOGD("create thread to send message queue.\n");
    if (manager == nullptr) {
        AM_LOGE("User data is NULL.\n");
        return nullptr;
    }
    static_cast<RecognitionProcessManager*>(manager)->handleSendMessageQueue();
    return 0;
}

mqd_t RecognitionProcessManager::openMessageQueue() {
    struct mq_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    attr.mq_flags = 0;
    attr.mq_maxmsg = proto::kQueueMaxMessages;
    attr.mq_msgsize = proto::kMessageSize;
    mqd_t queue = mq_open(proto::kQueueName, O_RDWR | O_CREAT | O_EXCL, 0666, &attr);
    if (queue == static_cast<mqd_t>(-1) && errno != EEXIST) {
        AM_LOGE("mq_open failed, errno: %s(%d).\n", strerror(errno), errno);
        return queue;
    }
    // errno is read whether or not the exclusive open worked: a stale EEXIST also takes this path.
    if (errno == EEXIST) {
        AM_LOGD("message queue is exist.\n");
        if (queue != static_cast<mqd_t>(-1)) {
            mq_close(queue);
        }
        queue = mq_open(proto::kQueueName, O_RDWR);
        if (queue == static_cast<mqd_t>(-1)) {
            AM_LOGE("mq_open failed, errno: %s(%d).\n", strerror(errno), errno);
            return queue;
        }
        // Left by something else with other limits, every 40-byte send would fail for good.
        struct mq_attr found;
        if (mq_getattr(queue, &found) == 0 &&
            (found.mq_maxmsg != attr.mq_maxmsg || found.mq_msgsize != attr.mq_msgsize)) {
            AM_LOGN("message queue %s holds %ld messages of %ld bytes instead of %ld of %ld: made anew.\n",
                    proto::kQueueName, static_cast<long>(found.mq_maxmsg),
                    static_cast<long>(found.mq_msgsize), static_cast<long>(attr.mq_maxmsg),
                    static_cast<long>(attr.mq_msgsize));
            mq_close(queue);
            mq_unlink(proto::kQueueName);
            queue = mq_open(proto::kQueueName, O_RDWR | O_CREAT | O_EXCL, 0666, &attr);
            if (queue == static_cast<mqd_t>(-1)) {
                AM_LOGE("mq_open failed, errno: %s(%d).\n", strerror(errno), errno);
            }
        }
    }
    return queue;
}

void RecognitionProcessManager::followMessageQueue(mqd_t& queue) {
    // A restarted service makes a new queue when the name is gone: the old one reaches nobody.
    mqd_t named = mq_open(proto::kQueueName, O_RDWR);
    if (named != static_cast<mqd_t>(-1) && sameQueue(named, queue)) {
        mq_close(named);
        return;
    }
    if (named == static_cast<mqd_t>(-1) && errno != ENOENT) {
        AM_LOGE("mq_open failed, errno: %s(%d).\n", strerror(errno), errno);
        return;
    }
    if (named != static_cast<mqd_t>(-1)) {
        mq_close(named);
    }
    AM_LOGN("message queue %s was %s: sending into a new one.\n", proto::kQueueName,
            named == static_cast<mqd_t>(-1) ? "removed" : "replaced");
    mqd_t reopened = openMessageQueue();
    if (reopened != static_cast<mqd_t>(-1)) {
        mq_close(queue);
        queue = reopened;
    }
}

void RecognitionProcessManager::handleSendMessageQueue() {
    AM_LOGD("message queue name: %st.\n", proto::kQueueName);
    mqd_t queue = openMessageQueue();
    if (queue == static_cast<mqd_t>(-1)) {
        markSendThreadEnded();
        return;
    }
    AM_LOGD("message queue start send ......\n");
    m_messageQueueOpened = true;

    while (m_loopSendMessageQueue) {
        pthread_mutex_lock(&m_sendMutex);
        // Checked under the mutex that stop() signals with, so its wake-up cannot be lost.
        if (!m_loopSendMessageQueue) {
            pthread_mutex_unlock(&m_sendMutex);
            break;
        }
        m_sendThreadWaiting = true;
        pthread_cond_broadcast(&m_sendReadyCond);
        pthread_cond_wait(&m_sendCond, &m_sendMutex);
        m_sendThreadWaiting = false;
        followMessageQueue(queue);
        // Nobody reading and the queue full: a blocking send would hold the send mutex for good and
        // hang every later request and stop(). Drop it; the request runs into its time-out.
        struct mq_attr now;
        int res;
        if (mq_getattr(queue, &now) == 0 && now.mq_curmsgs >= now.mq_maxmsg) {
            errno = EAGAIN;
            res = -1;
        } else {
            res = mq_send(queue, m_sendMessage, proto::kMessageSize, 0);
        }
        int error = errno;
        AM_LOGD("mq_send finished. Actual m_sendMessage: %s\n", m_sendMessage);
        if (res != 0) {
            AM_LOGE("mq_send error, errno: %s(%d).\n", strerror(error), error);
        }
        AM_LOGD("mq_send with res: %d.\n", res);
        pthread_mutex_unlock(&m_sendMutex);
    }
    markSendThreadEnded();
    mq_close(queue);
    mq_unlink(proto::kQueueName);
}

void RecognitionProcessManager::markSendThreadEnded() {
    pthread_mutex_lock(&m_sendMutex);
    m_sendThreadEnded = true;
    m_sendThreadWaiting = false;
    pthread_cond_broadcast(&m_sendReadyCond);
    pthread_mutex_unlock(&m_sendMutex);
}

bool RecognitionProcessManager::awaitSendThreadLocked(int seconds) {
    // Real time, not the platform's: a host safety margin, not one of the daemon's waits.
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    while (!m_sendThreadWaiting && !m_sendThreadEnded && m_loopSendMessageQueue) {
        if (pthread_cond_timedwait(&m_sendReadyCond, &m_sendMutex, &deadline) == ETIMEDOUT) {
            break;
        }
    }
    return m_sendThreadWaiting;
}

bool RecognitionProcessManager::awaitSendThread(int seconds) {
    pthread_mutex_lock(&m_sendMutex);
    bool waiting = awaitSendThreadLocked(seconds);
    pthread_mutex_unlock(&m_sendMutex);
    return waiting;
}

void RecognitionProcessManager::triggerMessage(char* message) {
    if (message == nullptr) {
        AM_LOGE("sendMessage is NULL.\n");
        return;
    }
    pthread_mutex_lock(&m_sendMutex);
    // The send thread's wait has no predicate: a signal given while it is still busy with the last
    // command would be lost. Give it a moment to get back to its wait; a thread that is gone or
    // stuck only costs this request its time-out, as before.
    awaitSendThreadLocked(kSendReadyWaitSeconds);
    // This command takes the waiting thread; the next one waits for it to come back.
    m_sendThreadWaiting = false;
    std::memset(m_sendMessage, 0, sizeof(m_sendMessage));
    std::strncpy(m_sendMessage, message, sizeof(m_sendMessage) - 1);
    pthread_cond_signal(&m_sendCond);
    pthread_mutex_unlock(&m_sendMutex);
}

int RecognitionProcessManager::handleMessage(bool withData, char* message, void* data, int size) {
    UniqueLock lock(m_requestMutex);
    if (message == nullptr && m_messageQueueOpened) {
        AM_LOGE("sendMessage is NULL.\n");
        return 1;
    }
    followShareMemory();
    // Without a segment there is no state word to post: refused like a failed request.
    if (m_pShareMemory == nullptr) {
        return 1;
    }
    storeState(m_pShareMemory, proto::kStatePosted);
    if (withData && data != nullptr && size > 0) {
        int bytes = size < proto::kPayloadSize ? size : proto::kPayloadSize;
        std::memcpy(m_pShareMemory + proto::kPayloadOffset, data, static_cast<size_t>(bytes));
    }
    triggerMessage(message);
    if (message != nullptr && std::strcmp(message, proto::kCmdStopAiService) == 0) {
        return waitStopAiServiceFinished();
    }
    return waitMessageFinished(data);
}

int RecognitionProcessManager::waitMessageFinished(void* out) {
    if (m_pShareMemory == nullptr) {
        return 1;
    }
    const unsigned char* payload = m_pShareMemory + proto::kPayloadOffset;
    for (int timeSum = 0;; timeSum += kPollStepMs) {
        AM_LOGT("state: %d, timeSum: %d.\n", loadState(m_pShareMemory), timeSum);
        if (timeSum == kRequestLimitMs) {
            AM_LOGE("time out.\n");
            return 1;
        }
        switch (loadState(m_pShareMemory)) {
            case proto::kStateDone:
                if (std::strcmp(m_sendMessage, proto::kCmdGetModelConfig) == 0) {
                    if (out != nullptr) {
                        std::memcpy(out, payload, proto::kModelConfigSize);
                    }
                    AM_LOGD("get model config.\n");
                } else if (std::strcmp(m_sendMessage, proto::kCmdPredict) == 0) {
                    if (out != nullptr) {
                        std::memcpy(out, payload, proto::kPredictResultSize);
                    }
                    AM_LOGD("get predict result.\n");
                } else if (std::strcmp(m_sendMessage, proto::kCmdImagePredict) == 0) {
                    if (out != nullptr) {
                        std::memcpy(out, payload, sizeof(int32_t));
                    }
                    AM_LOGD("get invalid image.\n");
                }
                return 0;
            case proto::kStateFailed:
                AM_LOGE("AiService handle sendMessage failed.\n");
                return 1;
            case proto::kStateNotInit:
                m_aiServiceEnvLoaded = false;
                AM_LOGE("AiService not init.\n");
                return 2;
            case proto::kStateNoModel:
                m_modelLoaded = false;
                AM_LOGE("AiService not load model.\n");
                return 3;
            default:
                if (!waitUnlessAbandoned(kPollStepMs)) {
                    AM_LOGE("%s abandoned: shutting down.\n", m_sendMessage);
                    return 1;
                }
                break;
        }
    }
}

int RecognitionProcessManager::waitStopAiServiceFinished() {
    if (m_pShareMemory == nullptr) {
        return 1;
    }
    for (int timeSum = 0;; timeSum += kStopPollStepMs) {
        AM_LOGT("state: %d, timeSum: %d.\n", loadState(m_pShareMemory), timeSum);
        if (timeSum == kRequestLimitMs) {
            AM_LOGE("time out.\n");
            return 1;
        }
        int32_t state = loadState(m_pShareMemory);
        if (state == proto::kStateDone) {
            return 0;
        }
        if (state == proto::kStateFailed) {
            AM_LOGE("AiService process not stopped.\n");
            return 1;
        }
        if (!waitUnlessAbandoned(kStopPollStepMs)) {
            AM_LOGE("stop wait abandoned: shutting down.\n");
            return 1;
        }
    }
}

bool RecognitionProcessManager::waitUnlessAbandoned(int milliseconds) {
    for (int waited = 0; waited < milliseconds; waited += kPollStepMs) {
        if (m_requestsAbandoned || osalWaitExitRequest(kPollStepMs)) {
            return false;
        }
    }
    return !m_requestsAbandoned;
}

int RecognitionProcessManager::initAiService() {
    AM_ENTER();
    Command command(proto::kCmdInitAiService);
    int ret = handleMessage(false, command.text, nullptr, 0);
    AM_RETURN_VAL(ret);
    return ret;
}

void RecognitionProcessManager::getModelConfig(void* out) {
    AM_ENTER();
    Command command(proto::kCmdGetModelConfig);
    handleMessage(false, command.text, out, proto::kModelConfigSize);
    AM_RETURN();
}

void RecognitionProcessManager::setModelConfig(void* in, int size) {
    AM_ENTER();
    Command command(proto::kCmdSetModelConfig);
    handleMessage(true, command.text, in, size);
    AM_RETURN();
}

void RecognitionProcessManager::setAiType(void* in, int size) {
    AM_ENTER();
    Command command(proto::kCmdSetAiType);
    handleMessage(true, command.text, in, size);
    AM_RETURN();
}

int RecognitionProcessManager::loadAiServiceEnv() {
    AM_ENTER();
    UniqueLock lock(m_envMutex);
    if (m_aiServiceEnvLoaded) {
        AM_LOGD("load successed, can not again.\n");
        AM_RETURN_VAL(0);
        return 0;
    }
    int ret = initAiService();
    if (ret == 0) {
        getModelConfig(&m_modelConfig);
        loadEnv();
        setModelConfig(&m_modelConfig, static_cast<int>(sizeof(m_modelConfig)));
        int32_t aiType = 0;
        setAiType(&aiType, static_cast<int>(sizeof(aiType)));
        m_aiServiceEnvLoaded = true;
        AM_RETURN_VAL(0);
        return 0;
    }
    // Paced on purpose: a service that is not up yet is not asked again for 10 s.
    for (int i = 0; i < kInitFailureLines; ++i) {
        if (i > 0 && !waitUnlessAbandoned(1000)) {
            break;
        }
        AM_LOGE("initAiService failed. init result: %d.\n", ret);
    }
    AM_LOGE("initAiService failed. time out: %d\n", kInitFailureLines - 1);
    AM_RETURN_VAL(1);
    return 1;
}

int RecognitionProcessManager::loadModel() {
    AM_ENTER();
    if (m_modelLoaded) {
        AM_RETURN_VAL(0);
        return 0;
    }
    if (loadAiServiceEnv() != 0) {
        AM_RETURN_VAL(3);
        return 3;
    }
    Command command(proto::kCmdLoadModel);
    int ret = handleMessage(false, command.text, nullptr, 0);
    m_modelLoaded = (ret == 0);
    AM_RETURN_VAL(ret);
    return ret;
}

int RecognitionProcessManager::releaseModel() {
    AM_ENTER();
    if (!m_modelLoaded) {
        AM_RETURN_VAL(0);
        return 0;
    }
    m_modelLoaded = false;
    Command command(proto::kCmdReleaseModel);
    int ret = handleMessage(false, command.text, nullptr, 0);
    AM_RETURN_VAL(ret);
    return ret;
}

int RecognitionProcessManager::isValidPicture(korvane::ai::PictureData* picture) {
    AM_ENTER();
    if (picture == nullptr) {
        AM_LOGE("pictureData is NULL.\n");
        AM_RETURN_VAL(1);
        return 1;
    }
    int32_t imageDetectResult = 0;
    Command command(proto::kCmdImagePredict);
    int ret =
        handleMessage(false, command.text, &imageDetectResult, static_cast<int>(sizeof(imageDetectResult)));
    if (ret != 0) {
        AM_LOGE("valid image detect failed. imageDetectResult: %d.\n", imageDetectResult);
        AM_RETURN_VAL(ret);
        return ret;
    }
    AM_LOGD("Picture is %d.\n", imageDetectResult);
    ret = imageDetectResult == 0 ? 0 : 1;
    AM_RETURN_VAL(ret);
    return ret;
}

int RecognitionProcessManager::recognitionPicture(korvane::ai::PictureData* picture,
                                                  AiPQPredictLabel& current, AiPQPredictLabel& previous,
                                                  std::vector<TelvoAiPQPredict>* predictions) {
    AM_ENTER();
    if (picture == nullptr) {
        AM_LOGE("pictureData is NULL.\n");
        AM_RETURN_VAL(1);
        return 1;
    }
    int ret = loadModel();
    if (ret != 0) {
        AM_LOGE("Load model error. loadModelResult: %d.\n", ret);
        AM_RETURN_VAL(ret);
        return ret;
    }
    {
        // A request may move to a new segment and let the old one go: read it under the same mutex.
        UniqueLock lock(m_requestMutex);
        followShareMemory();
        if (m_pShareMemory != nullptr) {
            // What the service is about to read: tells a stale payload from a fresh capture in the log.
            outputCharSerial(
                "Pixel Serial: ", reinterpret_cast<const char*>(m_pShareMemory + proto::kPayloadOffset), 12);
        }
    }
    unsigned char result[proto::kPredictResultSize];
    std::memset(result, 0, sizeof(result));
    Command command(proto::kCmdPredict);
    ret = handleMessage(false, command.text, result, static_cast<int>(sizeof(result)));
    if (ret != 0) {
        AM_LOGE("ImagePredict failed. imagePredictResult: %d .\n", ret);
        AM_RETURN_VAL(ret);
        return ret;
    }
    TelvoAiPQPredict records[proto::kPredictRecordCount];
    std::memcpy(records, result + proto::kPredictRecordsOffset, sizeof(records));
    char title[] = "AiPQPredictLabel";
    outputAiPQPredictLabels(title, records, proto::kPredictRecordCount);
    previous = m_lastLabel;
    current = getValidScene(records, proto::kPredictRecordCount);
    if (predictions != nullptr) {
        predictions->insert(predictions->end(), records, records + proto::kPredictRecordCount);
    }
    AM_RETURN_VAL(0);
    return 0;
}

int RecognitionProcessManager::stopAiService() {
    AM_ENTER();
    Command command(proto::kCmdStopAiService);
    int ret = handleMessage(false, command.text, nullptr, 0);
    AM_RETURN_VAL(ret);
    return ret;
}
