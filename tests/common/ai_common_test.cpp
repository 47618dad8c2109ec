#include "ai_common.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

// Counts and switches: zero and negatives mean "missing", like text that is no number. The
// caller's errno survives unless the conversion itself overflowed: beyond long (twenty digits)
// everywhere, beyond int only where long is as narrow as int.
TEST(Str2Int, OnlyPositiveDecimalsCountAndOnlyAnOverflowOfLongReachesErrno) {
    constexpr int kCallers = EBADF;
    constexpr int kBeyondInt = sizeof(long) == sizeof(int) ? ERANGE : kCallers;
    const struct {
        const char* text;
        int expected;
        int errnoAfter;
    } cases[] = {
        {"42", 42, kCallers},
        {" +42", 42, kCallers},
        {"12abc", 12, kCallers},
        {"2147483647", 2147483647, kCallers},
        {"1", 1, kCallers},
        {"0", 7, kCallers},
        {"-0", 7, kCallers},
        {"-5", 7, kCallers},
        {"abc", 7, kCallers},
        {"", 7, kCallers},
        {nullptr, 7, kCallers},
        {"2147483648", 7, kBeyondInt},
        {"12345678901", 7, kBeyondInt},
        {"-12345678901", 7, kBeyondInt},
        {"12345678901234567890", 7, ERANGE},
        {"-12345678901234567890", 7, ERANGE},
    };
    for (const auto& c : cases) {
        const char* shown = c.text != nullptr ? c.text : "(null)";
        errno = kCallers;
        EXPECT_EQ(str2int(c.text, 7), c.expected) << shown;
        EXPECT_EQ(errno, c.errnoAfter) << shown;
    }
}

}  // namespace
