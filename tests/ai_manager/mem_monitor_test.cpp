// MemoryMonitor: reading the memory summary, classifying it, and reporting changes. The observer is
// a real AIRecognition wired to nothing; what reaches it is read from its log lines.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "ai_recognition.h"
#include "host_platform.h"
#include "log_capture.h"
#include "mem_monitor.h"

namespace {

using namespace std::chrono_literals;

const char* const kObserverLine = "[AI Manager] memoryState: ";

const char* const kTypicalMeminfo =
    "MemTotal:       16337564 kB\n"
    "MemFree:         1021240 kB\n"
    "MemAvailable:    9876543 kB\n"
    "Buffers:          413064 kB\n"
    "Cached:          8213448 kB\n"
    "SwapCached:         2052 kB\n"
    "Active:          6542428 kB\n"
    "SwapTotal:       2097148 kB\n"
    "SwapFree:        2088956 kB\n";

class MemMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/aipq_meminfo_XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        m_path = tmpl;
    }

    void TearDown() override { unlink(m_path.c_str()); }

    // Replaced whole, so that the check thread never reads half a file.
    void writeMeminfo(const std::string& text) {
        std::string tmp = m_path + ".tmp";
        FILE* f = std::fopen(tmp.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs(text.c_str(), f);
        std::fclose(f);
        ASSERT_EQ(std::rename(tmp.c_str(), m_path.c_str()), 0);
    }

    // A summary whose only line of interest is MemAvailable.
    void writeAvailable(int kilobytes) {
        writeMeminfo("MemTotal: 1000000 kB\nMemAvailable: " + std::to_string(kilobytes) + " kB\n");
    }

    LogCapture m_log;
    std::string m_path;
};

TEST_F(MemMonitorTest, DefaultThresholdsAtTheirBoundaries) {
    MemoryMonitor monitor(m_path.c_str());
    EXPECT_EQ(monitor.getEnoughThreshold(), 80);
    EXPECT_EQ(monitor.getLimitThreshold(), 50);
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateUnknown);
    EXPECT_EQ(monitor.getMemoryState(nullptr), MemoryStateUnknown);
    const struct {
        int available;
        MemoryState state;
    } cases[] = {
        {80, MemoryStateEnough}, {79, MemoryStateLimit}, {50, MemoryStateLimit}, {49, MemoryStateLack}};
    for (const auto& c : cases) {
        writeAvailable(c.available);
        monitor.updateMemoryState();
        EXPECT_EQ(monitor.getMemoryState(), c.state) << c.available;
    }
}

TEST_F(MemMonitorTest, OtherThresholds) {
    MemoryMonitor monitor(m_path.c_str());
    monitor.setThreshold(120, 90);
    EXPECT_TRUE(m_log.contains("m_enoughThreshold: 120, m_limitThreshold: 90"));
    EXPECT_EQ(monitor.getEnoughThreshold(), 120);
    EXPECT_EQ(monitor.getLimitThreshold(), 90);
    writeAvailable(100);
    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLimit);
    writeAvailable(120);
    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateEnough);
    writeAvailable(89);
    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLack);
}

TEST_F(MemMonitorTest, ReadsEveryFieldAndCachedIsNotTakenFromSwapCached) {
    writeMeminfo(kTypicalMeminfo);
    MemoryMonitor monitor(m_path.c_str());
    MemoryInfo info = {};
    ASSERT_TRUE(monitor.getMemoryInfo(info));
    EXPECT_EQ(info.total, 16337564);
    EXPECT_EQ(info.free, 1021240);
    EXPECT_EQ(info.available, 9876543);
    EXPECT_EQ(info.buffers, 413064);
    EXPECT_EQ(info.cached, 8213448);
    EXPECT_EQ(info.swapCached, 2052);
    EXPECT_EQ(info.swapFree, 2088956);
}

TEST_F(MemMonitorTest, MissingKeysStayMinusOneAndNoAvailableMeansLack) {
    writeMeminfo("MemTotal: 2048 kB\nMemFree: 1024 kB\n");
    MemoryMonitor monitor(m_path.c_str());
    MemoryInfo info = {};
    ASSERT_TRUE(monitor.getMemoryInfo(info));
    EXPECT_EQ(info.total, 2048);
    EXPECT_EQ(info.free, 1024);
    EXPECT_EQ(info.available, -1);
    EXPECT_EQ(info.buffers, -1);
    EXPECT_EQ(info.cached, -1);
    EXPECT_EQ(info.swapCached, -1);
    EXPECT_EQ(info.swapFree, -1);
    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLack);
    EXPECT_TRUE(m_log.contains("MemoryInfo - available: -1, buffers: -1, cached: -1, free: 1024"));
}

TEST_F(MemMonitorTest, AMalformedLineIsRefusedAndTheCheckGoesOn) {
    writeMeminfo(
        "MemTotal:       16337564 kB\n"
        "MemFree:        99999999999 kB\n"
        "MemAvailable:   plenty kB\n"
        "Buffers:          413064 kB\n"
        "Cached:\n");
    MemoryMonitor monitor(m_path.c_str());
    MemoryInfo info = {};
    ASSERT_TRUE(monitor.getMemoryInfo(info));
    EXPECT_EQ(info.total, 16337564);
    EXPECT_EQ(info.free, -1);
    EXPECT_EQ(info.available, -1);
    EXPECT_EQ(info.buffers, 413064);
    EXPECT_EQ(info.cached, -1);
    EXPECT_TRUE(m_log.contains("[MemAvailable:   plenty kB]"));
    EXPECT_TRUE(m_log.contains("[MemFree:        99999999999 kB]"));
    EXPECT_TRUE(m_log.contains("[Cached:]"));

    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLack);
}

TEST_F(MemMonitorTest, AMissingFileGivesTheFallbackValues) {
    std::string missing = m_path + ".missing";
    MemoryMonitor monitor(missing.c_str());
    MemoryInfo info = {};
    EXPECT_FALSE(monitor.getMemoryInfo(info));
    EXPECT_EQ(info.total, -1);
    EXPECT_EQ(info.free, 524288);
    EXPECT_EQ(info.available, -1);
    EXPECT_EQ(info.buffers, -1);
    EXPECT_EQ(info.cached, -1);
    EXPECT_EQ(info.swapCached, -1);
    EXPECT_EQ(info.swapFree, -1);
    EXPECT_TRUE(m_log.contains("fail to open fileName: [" + missing + "]."));
    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLack);
}

TEST_F(MemMonitorTest, TheKernelsSummaryReads) {
    MemoryMonitor monitor;
    MemoryInfo info = {};
    ASSERT_TRUE(monitor.getMemoryInfo(info));
    EXPECT_GT(info.total, 0);
    EXPECT_GT(info.available, 0);
    EXPECT_GE(info.free, 0);
}

TEST_F(MemMonitorTest, TheSameStateTwiceNotifiesOnce) {
    AIRecognition controller;
    MemoryMonitor monitor(m_path.c_str());
    monitor.setObserver(&controller);
    writeAvailable(60);
    monitor.updateMemoryState();
    monitor.updateMemoryState();
    EXPECT_EQ(m_log.count(std::string(kObserverLine) + "2."), 1);
    EXPECT_EQ(m_log.count("memory state changged: 0 - > 2"), 1);

    monitor.setMemoryState(MemoryStateLimit);
    EXPECT_EQ(m_log.count(kObserverLine), 1);
    monitor.setMemoryState(MemoryStateEnough);
    monitor.setMemoryState(MemoryStateEnough);
    EXPECT_EQ(m_log.count(std::string(kObserverLine) + "1."), 1);
    EXPECT_EQ(m_log.count(kObserverLine), 2);
}

TEST_F(MemMonitorTest, NullObserverIsRefused) {
    AIRecognition controller;
    MemoryMonitor monitor(m_path.c_str());
    monitor.setObserver(&controller);
    monitor.setObserver(nullptr);
    EXPECT_EQ(m_log.count("pAIRecognition is NULL."), 1);
    monitor.setMemoryState(MemoryStateLack);
    EXPECT_EQ(m_log.count(std::string(kObserverLine) + "3."), 1);
}

TEST_F(MemMonitorTest, EnableMemoryState) {
    MemoryMonitor monitor(m_path.c_str());
    EXPECT_FALSE(monitor.enableMemoryState());
    monitor.setMemoryState(MemoryStateEnough);
    EXPECT_TRUE(monitor.enableMemoryState());
    monitor.setMemoryState(MemoryStateLimit);
    EXPECT_TRUE(monitor.enableMemoryState());
    monitor.setMemoryState(MemoryStateLack);
    EXPECT_FALSE(monitor.enableMemoryState());
    EXPECT_TRUE(m_log.contains("m_memState: 3"));
}

class TimeScale {
public:
    explicit TimeScale(double scale) { host::setTimeScale(scale); }
    ~TimeScale() { host::setTimeScale(1.0); }
};

TEST_F(MemMonitorTest, StartTwiceRunsOneThreadThatChecksEverySecond) {
    TimeScale fast(50.0);  // a second of the check thread lasts 20 ms
    AIRecognition controller;
    MemoryMonitor monitor(m_path.c_str());
    monitor.setObserver(&controller);
    writeAvailable(100);

    monitor.start();
    monitor.start();
    EXPECT_EQ(m_log.count("Start memory check process."), 2);
    EXPECT_EQ(m_log.count("pthread_create() success."), 1);
    EXPECT_EQ(m_log.count("memory check thread is started, do not need to start again."), 1);

    EXPECT_TRUE(m_log.waitFor(std::string(kObserverLine) + "1.", 5000ms));
    writeAvailable(10);
    EXPECT_TRUE(m_log.waitFor(std::string(kObserverLine) + "3.", 5000ms));
    EXPECT_TRUE(m_log.waitFor("MemoryInfo - available: 10,", 5000ms, 3));

    monitor.stop();
    EXPECT_TRUE(m_log.contains("Stop memory check process. m_memoryCheckProc: 1"));
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLack);
    // Each change was reported once however many checks saw it.
    EXPECT_EQ(m_log.count(kObserverLine), 2);

    // Startable again after a stop.
    monitor.start();
    EXPECT_EQ(m_log.count("pthread_create() success."), 2);
}

TEST_F(MemMonitorTest, StopWithoutStartOnlyLogs) {
    MemoryMonitor monitor(m_path.c_str());
    monitor.stop();
    EXPECT_EQ(m_log.count("Stop memory check process. m_memoryCheckProc: 0"), 1);
    EXPECT_EQ(m_log.count("pthread_create()"), 0);
}

}  // namespace
