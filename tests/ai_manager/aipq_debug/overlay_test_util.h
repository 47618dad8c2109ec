#ifndef TESTS_AI_MANAGER_AIPQ_DEBUG_OVERLAY_TEST_UTIL_H
#define TESTS_AI_MANAGER_AIPQ_DEBUG_OVERLAY_TEST_UTIL_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fake_directfb.h"
#include "host_platform.h"
#include "log_capture.h"

// Every test starts from a fresh fake and sees the overlay's trace lines.
class FakeDfbTest : public ::testing::Test {
protected:
    void SetUp() override { fakedfb::reset(); }

    LogCapture m_log{5000};
};

// Method names of the calls on one object, in order.
inline std::vector<std::string> methodsOn(const std::string& object, int id) {
    std::vector<std::string> out;
    for (const fakedfb::Call& c : fakedfb::callsOn(object, id)) {
        out.push_back(c.method);
    }
    return out;
}

inline std::vector<long> argsOf(const fakedfb::Call& call) {
    return call.args;
}

// For code that must run in a process of its own (the root interface is cached per process).
// The body's exit status is the verdict; the log goes to stderr for the caller's pattern.
#define EXPECT_IN_FRESH_PROCESS(body, stderrPattern)      \
    do {                                                  \
        GTEST_FLAG_SET(death_test_style, "threadsafe");   \
        EXPECT_EXIT(                                      \
            {                                             \
                host::setLogSink(nullptr);                \
                host::setLogLevel(5000);                  \
                _exit((body)());                          \
            },                                            \
            ::testing::ExitedWithCode(0), stderrPattern); \
    } while (0)

#endif
