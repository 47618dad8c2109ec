#include "ai_common.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

// Counts and switches: zero and negatives mean "missing", like text that is no number.
TEST(Str2Int, OnlyPositiveDecimalsCountAndTheCallersErrnoSurvives) {
    const struct {
        const char* text;
        int expected;
    } cases[] = {
        {"42", 42},        {" +42", 42}, {"12abc", 12}, {"2147483647", 2147483647},
        {"1", 1},          {"0", 7},     {"-0", 7},     {"-5", 7},
        {"abc", 7},        {"", 7},      {nullptr, 7},  {"12345678901", 7},
        {"2147483648", 7},
    };
    for (const auto& c : cases) {
        const char* shown = c.text != nullptr ? c.text : "(null)";
        errno = EBADF;
        EXPECT_EQ(str2int(c.text, 7), c.expected) << shown;
        EXPECT_EQ(errno, EBADF) << shown;
    }
}

}  // namespace
