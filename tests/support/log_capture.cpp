#include "log_capture.h"

#include "host_platform.h"

LogCapture::LogCapture(unsigned int level) {
    host::setLogLevel(level);
    host::setLogSink([this](const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
        m_cond.notify_all();
    });
}

LogCapture::~LogCapture() {
    host::setLogSink(nullptr);
    host::setLogLevel(4000);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

int LogCapture::countLocked(const std::string& needle) const {
    int n = 0;
    for (const auto& l : m_lines) {
        n += l.find(needle) != std::string::npos;
    }
    return n;
}

int LogCapture::count(const std::string& needle) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return countLocked(needle);
}

bool LogCapture::waitFor(const std::string& needle, std::chrono::milliseconds timeout, int times) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, timeout, [&] { return countLocked(needle) >= times; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}
