#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "dbg_log.h"
#include "host_platform.h"

namespace {

constexpr unsigned int kDefaultLevel = 4000;

struct LogState {
    std::atomic<unsigned int> maxLevel{kDefaultLevel};
    int fd = STDERR_FILENO;
    // Standard error is a stream of systemd's journal: a syslog priority prefix instead of the
    // timestamp, which journald adds itself.
    std::atomic<bool> journal{false};
    std::mutex sinkMutex;
    std::function<void(const std::string&)> sink;
};

LogState& state() {
    static LogState* s = [] {
        auto* st = new LogState;
        if (const char* level = std::getenv("AIPQ_LOG_LEVEL")) {
            char* end = nullptr;
            unsigned long v = std::strtoul(level, &end, 10);
            if (end != level) {
                st->maxLevel = static_cast<unsigned int>(v);
            }
        }
        if (const char* file = std::getenv("AIPQ_LOG_FILE")) {
            int fd = ::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            if (fd >= 0) {
                st->fd = fd;
            } else {
                std::fprintf(stderr, "log: cannot open AIPQ_LOG_FILE %s, logging to stderr\n", file);
            }
        }
        return st;
    }();
    return *s;
}

// systemd sets JOURNAL_STREAM to "device:inode" of the stream it connects to stdout and stderr;
// a process whose stderr was redirected elsewhere sees a different pair and keeps its format.
bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char end = 0;
    if (std::sscanf(stream, "%llu:%llu%c", &device, &inode, &end) != 2) {
        return false;
    }
    struct stat st {};
    return fstat(STDERR_FILENO, &st) == 0 && static_cast<unsigned long long>(st.st_dev) == device &&
           static_cast<unsigned long long>(st.st_ino) == inode;
}

// The level of the last dbgLevelEnabled call on this thread: the interface gives dbgOutput no
// level, and every caller asks dbgLevelEnabled just before it writes.
thread_local unsigned int t_lastLevel = DBG_LEVEL_DEBUG;

// syslog priorities: errors 3 (err), notices 5 (notice), entry/exit, debug and trace 7 (debug).
int syslogPriority(unsigned int level) {
    switch (level) {
        case DBG_LEVEL_ERROR:
            return 3;
        case DBG_LEVEL_NOTICE:
            return 5;
        default:
            return 7;
    }
}

}  // namespace

namespace host {

void setLogSink(std::function<void(const std::string& line)> sink) {
    LogState& s = state();
    std::lock_guard<std::mutex> lock(s.sinkMutex);
    s.sink = std::move(sink);
}

void setLogLevel(unsigned int level) {
    state().maxLevel = level;
}

}  // namespace host

void dbgInit() {
    LogState& s = state();
    s.journal = s.fd == STDERR_FILENO && stderrIsJournal();
}

bool dbgLevelEnabled(unsigned int levelWord) {
    if ((levelWord >> 16) != DBG_MODULE_AIPQ) {
        return false;
    }
    t_lastLevel = levelWord & 0xFFFFu;
    return t_lastLevel <= state().maxLevel.load(std::memory_order_relaxed);
}

void dbgOutput(const char* format, ...) {
    LogState& s = state();

    // Timestamp prefix (or the journal's priority), then the message; built whole so that one
    // write(2) carries the line.
    char prefix[40];
    int n = 0;
    if (s.journal.load(std::memory_order_relaxed)) {
        n = std::snprintf(prefix, sizeof(prefix), "<%d>[%d] ", syslogPriority(t_lastLevel),
                          static_cast<int>(gettid()));
    } else {
        struct timeval tv;
        gettimeofday(&tv, nullptr);
        struct tm tmv;
        localtime_r(&tv.tv_sec, &tmv);
        n = std::snprintf(prefix, sizeof(prefix), "%02d:%02d:%02d.%03ld [%d] ", tmv.tm_hour, tmv.tm_min,
                          tmv.tm_sec, static_cast<long>(tv.tv_usec / 1000), static_cast<int>(gettid()));
    }
    std::string line(prefix, n > 0 ? static_cast<size_t>(n) : 0);

    char stackBuf[1024];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int len = std::vsnprintf(stackBuf, sizeof(stackBuf), format, args);
    va_end(args);
    if (len >= 0 && static_cast<size_t>(len) < sizeof(stackBuf)) {
        line.append(stackBuf, static_cast<size_t>(len));
    } else if (len >= 0) {
        std::vector<char> big(static_cast<size_t>(len) + 1);
        std::vsnprintf(big.data(), big.size(), format, copy);
        line.append(big.data(), static_cast<size_t>(len));
    }
    va_end(copy);

    {
        std::lock_guard<std::mutex> lock(s.sinkMutex);
        if (s.sink) {
            s.sink(line);
            return;
        }
    }
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t w = ::write(s.fd, p, left);
        if (w <= 0) {
            break;
        }
        p += w;
        left -= static_cast<size_t>(w);
    }
}
