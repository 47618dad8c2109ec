#ifndef AI_MANAGER_MEM_MONITOR_H
#define AI_MANAGER_MEM_MONITOR_H

#include <atomic>
#include <cstdint>
#include <string>

#include "osal.h"
#include "unique_lock.h"

class AIRecognition;

enum MemoryState : int32_t {
    MemoryStateUnknown = 0,
    MemoryStateEnough = 1,
    MemoryStateLimit = 2,
    MemoryStateLack = 3,
};

// Kilobyte figures as the kernel reports them; -1 where the key was not found.
struct MemoryInfo {
    int32_t total;
    int32_t free;
    int32_t available;
    int32_t buffers;
    int32_t cached;
    int32_t swapCached;
    int32_t swapFree;
};

class MemoryMonitor {
public:
    // The path is the kernel's memory summary; tests point it elsewhere.
    explicit MemoryMonitor(const char* memInfoPath = "/proc/meminfo");
    ~MemoryMonitor();
    MemoryMonitor(const MemoryMonitor&) = delete;
    MemoryMonitor& operator=(const MemoryMonitor&) = delete;

    void setObserver(AIRecognition* pAIRecognition);
    void setThreshold(int enough, int limit);
    int getEnoughThreshold();
    int getLimitThreshold();
    bool getMemoryInfo(MemoryInfo& info);
    int parserMemorySize(std::string key, std::string line);
    MemoryState getMemoryState(MemoryInfo* info);
    MemoryState getMemoryState();
    void setMemoryState(MemoryState state);
    void updateMemoryState();
    bool enableMemoryState();
    void start();
    void stop();
    void handleMemCheck();

private:
    int m_enoughThreshold;
    int m_limitThreshold;
    MemoryState m_memState;
    Mutex m_stateMutex;
    std::atomic<bool> m_memoryCheckProc;
    OsalThread m_checkThread;
    AIRecognition* m_pAIRecognition;
    Mutex m_threadMutex;
    std::string m_memInfoPath;
};

void* memCheckProc(void* monitor);

#endif
