#include "mem_monitor.h"

#include <pthread.h>

#include <cstdio>
#include <stdexcept>

#include "ai_recognition.h"
#include "aipq_log.h"

namespace {

// Fixed stand-in for MemFree when the memory summary cannot be read.
constexpr int32_t kFallbackFree = 524288;

std::string withoutLineEnd(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

}  // namespace

MemoryMonitor::MemoryMonitor(const char* memInfoPath)
    : m_enoughThreshold(80),
      m_limitThreshold(50),
      m_memState(MemoryStateUnknown),
      m_stateMutex(),
      m_memoryCheckProc(false),
      m_checkThread(),
      m_pAIRecognition(nullptr),
      m_threadMutex(),
      m_memInfoPath(memInfoPath != nullptr ? memInfoPath : "/proc/meminfo") {}

MemoryMonitor::~MemoryMonitor() {
    stop();
}

void MemoryMonitor::setObserver(AIRecognition* pAIRecognition) {
    if (pAIRecognition == nullptr) {
        AM_LOGE("pAIRecognition is NULL.\n");
        return;
    }
    m_pAIRecognition = pAIRecognition;
}

void MemoryMonitor::setThreshold(int enough, int limit) {
    m_enoughThreshold = enough;
    m_limitThreshold = limit;
    AM_LOGD("m_enoughThreshold: %d, m_limitThreshold: %d\n", m_enoughThreshold, m_limitThreshold);
}

int MemoryMonitor::getEnoughThreshold() {
    return m_enoughThreshold;
}

int MemoryMonitor::getLimitThreshold() {
    return m_limitThreshold;
}

bool MemoryMonitor::getMemoryInfo(MemoryInfo& info) {
    FILE* file = std::fopen(m_memInfoPath.c_str(), "r");
    if (file == nullptr) {
        AM_LOGE("fail to open fileName: [%s].\n", m_memInfoPath.c_str());
        info = {-1, kFallbackFree, -1, -1, -1, -1, -1};
        return false;
    }

    // Same order as the fields of MemoryInfo. Each field takes the first line that holds its key,
    // so "Cached" is not overwritten by the later "SwapCached" line.
    static const char* const kKeys[] = {"MemTotal", "MemFree",    "MemAvailable", "Buffers",
                                        "Cached",   "SwapCached", "SwapFree"};
    MemoryInfo found = {-1, -1, -1, -1, -1, -1, -1};
    int32_t* values[] = {&found.total,  &found.free,       &found.available, &found.buffers,
                         &found.cached, &found.swapCached, &found.swapFree};

    char buffer[512];
    while (std::fgets(buffer, sizeof(buffer), file) != nullptr) {
        std::string line(buffer);
        for (size_t i = 0; i < sizeof(kKeys) / sizeof(kKeys[0]); ++i) {
            if (*values[i] == -1) {
                *values[i] = parserMemorySize(kKeys[i], line);
            }
        }
    }
    std::fclose(file);

    info = found;
    return true;
}

int MemoryMonitor::parserMemorySize(std::string key, std::string line) {
    size_t pos = line.find(key);
    if (pos == std::string::npos) {
        return -1;
    }
    // A malformed line must not end the daemon: the field keeps -1 and the line is named.
    std::string problem = "negative";
    try {
        int value = std::stoi(line.substr(pos + key.size() + 1), nullptr, 10);
        // Kilobytes are never negative, and -1 has to keep meaning "no such key".
        if (value >= 0) {
            return value;
        }
    } catch (const std::logic_error& e) {
        problem = e.what();
    }
    AM_LOGE("refused line for %s (%s): [%s].\n", key.c_str(), problem.c_str(), withoutLineEnd(line).c_str());
    return -1;
}

MemoryState MemoryMonitor::getMemoryState(MemoryInfo* info) {
    if (info == nullptr) {
        return MemoryStateUnknown;
    }
    int available = info->available;
    if (available >= m_enoughThreshold) {
        return MemoryStateEnough;
    }
    if (available >= m_limitThreshold) {
        return MemoryStateLimit;
    }
    return MemoryStateLack;
}

MemoryState MemoryMonitor::getMemoryState() {
    UniqueLock lock(m_stateMutex);
    return m_memState;
}

void MemoryMonitor::setMemoryState(MemoryState state) {
    MemoryState previous = getMemoryState();
    if (state == previous) {
        return;
    }
    AM_LOGD("memory state changged: %d - > %d\n", previous, state);
    {
        UniqueLock lock(m_stateMutex);
        m_memState = state;
    }
    if (m_pAIRecognition != nullptr) {
        m_pAIRecognition->handleMemoryState(state);
    }
}

void MemoryMonitor::updateMemoryState() {
    MemoryInfo info = {};
    getMemoryInfo(info);
    AM_LOGD(
        "MemoryInfo - available: %d, buffers: %d, cached: %d, free: %d, swapCached: %d, swapFree: %d, "
        "total: %d\n",
        info.available, info.buffers, info.cached, info.free, info.swapCached, info.swapFree, info.total);
    setMemoryState(getMemoryState(&info));
}

bool MemoryMonitor::enableMemoryState() {
    MemoryState state = getMemoryState();
    AM_LOGD("m_memState: %d\n", state);
    return static_cast<uint32_t>(state) - 1u < 2u;
}

void MemoryMonitor::start() {
    AM_LOGD("Start memory check process.\n");
    UniqueLock lock(m_threadMutex);
    if (m_memoryCheckProc) {
        AM_LOGD("memory check thread is started, do not need to start again.\n");
        return;
    }
    m_memoryCheckProc = true;
    OsalThreadAttr attr;
    osalThreadAttrInit(&attr);
    int rc = osalThreadCreate(&m_checkThread, &attr, memCheckProc, this, __FILE__, __LINE__);
    osalThreadAttrDestroy(&attr);
    if (rc != 0) {
        m_memoryCheckProc = false;
        AM_LOGE("pthread_create() failed.\n");
        return;
    }
    AM_LOGD("pthread_create() success.\n");
}

void MemoryMonitor::stop() {
    AM_LOGD("Stop memory check process. m_memoryCheckProc: %d\n", m_memoryCheckProc.load());
    UniqueLock lock(m_threadMutex);
    if (m_memoryCheckProc) {
        m_memoryCheckProc = false;
        pthread_join(m_checkThread, nullptr);
    }
}

void MemoryMonitor::handleMemCheck() {
    while (m_memoryCheckProc) {
        osalSleep(1);
        updateMemoryState();
    }
}

void* memCheckProc(void* monitor) {
    static_cast<MemoryMonitor*>(monitor)->handleMemCheck();
    return nullptr;
}
