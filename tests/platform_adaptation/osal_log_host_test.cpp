// Host osal time arithmetic, the time seam, and the log facility's level word and whole lines.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "dbg_log.h"
#include "host_platform.h"
#include "log_capture.h"
#include "osal.h"

namespace {

TEST(OsalTime, CompareAndSubtractWithBorrow) {
    OsalTime a{10, 500000};
    OsalTime b{10, 400000};
    OsalTime c{9, 900000};
    EXPECT_EQ(osalCompareTime(&a, &b), 1);
    EXPECT_EQ(osalCompareTime(&b, &a), -1);
    EXPECT_EQ(osalCompareTime(&a, &a), 0);
    EXPECT_EQ(osalCompareTime(&b, &c), 1);

    OsalTime end{10, 100000};
    osalSubtractTime(&end, &c);
    EXPECT_EQ(end.seconds, 0);
    EXPECT_EQ(end.microseconds, 200000);

    OsalTime end2{12, 0};
    OsalTime start2{7, 999999};
    osalSubtractTime(&end2, &start2);
    EXPECT_EQ(end2.seconds, 4);
    EXPECT_EQ(end2.microseconds, 1);
}

TEST(OsalTimeSeam, ScaledSleepsTimedWaitsAndUptimeAgree) {
    host::setTimeScale(100.0);
    OsalTime before;
    osalGetUptime(&before);
    auto real0 = std::chrono::steady_clock::now();
    osalSleep(2);  // 20 ms real

    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += 3;  // 30 ms real
    pthread_mutex_lock(&m);
    int rc = osalCondTimedWait(&c, &m, &ts);
    pthread_mutex_unlock(&m);
    EXPECT_EQ(rc, ETIMEDOUT);

    auto realMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - real0).count();
    OsalTime after;
    osalGetUptime(&after);
    osalSubtractTime(&after, &before);
    host::setTimeScale(1.0);

    EXPECT_LT(realMs, 2000.0);
    EXPECT_GE(realMs, 45.0);
    // Uptime runs at the same pace as the waits: at least the 5 s slept and waited.
    EXPECT_GE(after.seconds, 5);
}

TEST(LogFacility, LevelWordNeedsTheModuleAndALevelAtOrBelowTheMaximum) {
    host::setLogLevel(4000);
    EXPECT_TRUE(dbgLevelEnabled(DBG_LEVEL_WORD(1)));
    EXPECT_TRUE(dbgLevelEnabled(DBG_LEVEL_WORD(4000)));
    EXPECT_FALSE(dbgLevelEnabled(DBG_LEVEL_WORD(5000)));
    EXPECT_FALSE(dbgLevelEnabled((0x1C6u << 16) | 1000u)) << "another module's word";
    EXPECT_EQ(DBG_LEVEL_WORD(1000), 0x01C703E8u);
    host::setLogLevel(5000);
    EXPECT_TRUE(dbgLevelEnabled(DBG_LEVEL_WORD(5000)));
    host::setLogLevel(4000);
}

TEST(LogFacility, MacroFormatHasBaseNameLineFunctionAndTag) {
    LogCapture log;
    int line = __LINE__ + 1;
    DBG_LOG(DBG_LEVEL_ERROR, "[Tag]", "value %d.\n", 5);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    std::string expected = "osal_log_host_test.cpp:" + std::to_string(line) + ":TestBody(): [Tag] value 5.\n";
    EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
    EXPECT_EQ(lines[0].find('/'), std::string::npos) << "only the file's base name";
}

// Child half of the next test: runs in a fresh process whose log goes to AIPQ_LOG_FILE.
TEST(LogFileChild, ManyThreadsLog) {
    if (std::getenv("AIPQ_LOG_CHILD") == nullptr) {
        GTEST_SKIP() << "runs only as the child of LogFacility.LinesStayWholeUnderManyThreads";
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            std::string pad(300, static_cast<char>('a' + t));
            for (int i = 0; i < 200; ++i) {
                DBG_LOG(DBG_LEVEL_DEBUG, "[T]", "thread %d line %d %s end\n", t, i, pad.c_str());
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    DBG_LOG(DBG_LEVEL_TRACE, "[T]", "trace line must be filtered\n");
}

TEST(LogFacility, LinesStayWholeUnderManyThreadsAndLevelComesFromTheEnvironment) {
    char path[] = "/tmp/aipq_log_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("AIPQ_LOG_CHILD", "1", 1);
        setenv("AIPQ_LOG_FILE", path, 1);
        setenv("AIPQ_LOG_LEVEL", "4000", 1);
        execl("/proc/self/exe", "child", "--gtest_filter=LogFileChild.ManyThreadsLog", nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    std::ifstream in(path);
    std::string line;
    int count = 0;
    std::regex whole(
        R"(^\d\d:\d\d:\d\d\.\d{3} \[\d+\] osal_log_host_test\.cpp:\d+:operator\(\)\(\): \[T\] thread (\d) line \d+ ([a-h])+ end$)");
    while (std::getline(in, line)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, whole)) << "torn or malformed line: " << line;
        EXPECT_EQ(line[line.size() - 5], static_cast<char>('a' + std::stoi(m[1].str())));
        ++count;
    }
    EXPECT_EQ(count, 8 * 200);
    unlink(path);
}

}  // namespace
