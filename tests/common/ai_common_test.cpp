#include "ai_common.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "log_capture.h"

namespace {

TEST(Str2Int, PositiveDecimalsPassEverythingElseGivesTheFallback) {
    LogCapture log;
    EXPECT_EQ(str2int("42", 7), 42);
    EXPECT_EQ(str2int("  42", 7), 42);
    EXPECT_EQ(str2int("+42", 7), 42);
    EXPECT_EQ(str2int("12abc", 7), 12);
    EXPECT_EQ(str2int("2147483647", 7), 2147483647);
    EXPECT_EQ(str2int("1", 7), 1);
    EXPECT_EQ(log.count("fail:"), 0);

    // Zero and negatives mean "missing" for every caller.
    EXPECT_EQ(str2int("0", 7), 7);
    EXPECT_EQ(str2int("-5", 7), 7);
    EXPECT_EQ(str2int("-0", 7), 7);
    EXPECT_EQ(log.count("fail:"), 0);

    EXPECT_EQ(str2int("abc", 7), 7);
    EXPECT_EQ(log.count("fail: invalid argument."), 1);
    EXPECT_EQ(str2int("", 7), 7);
    EXPECT_EQ(log.count("fail: invalid argument."), 2);
    EXPECT_EQ(str2int("12345678901", 7), 7);
    EXPECT_EQ(str2int("2147483648", 7), 7);
    EXPECT_EQ(log.count("fail: out of range."), 2);
    EXPECT_EQ(str2int(nullptr, 7), 7);
    EXPECT_EQ(log.count("pStr is NULL."), 1);
}

TEST(Str2Int, KeepsTheCallersErrno) {
    errno = EAGAIN;
    EXPECT_EQ(str2int("15", 3), 15);
    EXPECT_EQ(errno, EAGAIN);
    errno = EINTR;
    EXPECT_EQ(str2int("junk", 3), 3);
    EXPECT_EQ(errno, EINTR);
    errno = EBADF;
    EXPECT_EQ(str2int("99999999999999", 3), 3);
    EXPECT_EQ(errno, EBADF);
}

TEST(Str2Int, LogLinesCarryTheCommonTagAndLocation) {
    LogCapture log;
    str2int(nullptr, 1);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("ai_common.cpp:"), std::string::npos);
    EXPECT_NE(log.lines()[0].find(":str2int(): [AIPQ Common] pStr is NULL.\n"), std::string::npos);
}

TEST(OutputCharSerial, DecimalListAfterTheTitle) {
    LogCapture log;
    const char bytes[] = {12, static_cast<char>(200), 7};
    outputCharSerial("Pixel Serial: ", bytes, 3);
    outputCharSerial(nullptr, bytes, 3);
    outputCharSerial("T: ", bytes, 0);
    outputCharSerial("T: ", nullptr, 3);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].find("[AIPQ Common] Pixel Serial: 12, 200, 7, .\n"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("[AIPQ Common] 12, 200, 7, .\n"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("[AIPQ Common] T: .\n"), std::string::npos) << lines[2];
    EXPECT_NE(lines[3].find("buf is NULL."), std::string::npos);
}

TEST(PictureHelpers, InitPictureDataAndChannels) {
    korvane::ai::PictureData p;
    unsigned char dummy = 0;
    p.buffer = &dummy;
    p.width = 1;
    p.height = 2;
    p.colorMode = korvane::ai::COLOR_MODE_ARGB8888;
    p.reserved = 9;
    initPictureData(p);
    EXPECT_EQ(p.buffer, nullptr);
    EXPECT_EQ(p.width, 224);
    EXPECT_EQ(p.height, 224);
    EXPECT_EQ(p.colorMode, 4);
    EXPECT_EQ(p.reserved, 0);

    EXPECT_EQ(getChannels(static_cast<korvane::ai::ColorMode>(1)), 4);
    EXPECT_EQ(getChannels(static_cast<korvane::ai::ColorMode>(2)), 4);
    for (int m : {0, 3, 4, 5, -1, 1000}) {
        EXPECT_EQ(getChannels(static_cast<korvane::ai::ColorMode>(m)), 3) << m;
    }
}

TEST(FileAndThreadHelpers, FileExistAndKernelThreadId) {
    EXPECT_FALSE(fileExist(nullptr));
    EXPECT_FALSE(fileExist("/nonexistent/aipq/file"));
    EXPECT_TRUE(fileExist("/proc/self/status"));
    EXPECT_EQ(fileExist("/tmp"), fopen("/tmp", "rb") != nullptr);

    EXPECT_EQ(currentThread(), static_cast<int>(syscall(SYS_gettid)));
    int other = 0;
    std::thread t([&] { other = currentThread(); });
    t.join();
    EXPECT_NE(other, currentThread());
    EXPECT_GT(other, 0);
}

}  // namespace
