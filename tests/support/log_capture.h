#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// Collects every log line of the process while it lives (host log facility only).
class LogCapture {
public:
    explicit LogCapture(unsigned int level = 5000);
    ~LogCapture();

    std::vector<std::string> lines() const;
    int count(const std::string& needle) const;
    bool contains(const std::string& needle) const { return count(needle) > 0; }
    // Waits until `needle` has appeared at least `times` times.
    bool waitFor(const std::string& needle, std::chrono::milliseconds timeout, int times = 1) const;
    void clear();

private:
    int countLocked(const std::string& needle) const;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cond;
    std::vector<std::string> m_lines;
};

#endif
