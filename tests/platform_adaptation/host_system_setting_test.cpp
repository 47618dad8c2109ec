// Applied PQ rows: the last one stands in pq_parameters, and pq_history keeps one line per row.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <numeric>
#include <vector>

#include "system_setting.h"
#include "tv_state_dir.h"

namespace {

TEST(HostSystemSettingTest, EachRowReplacesTheLastAndAddsOneHistoryLine) {
    char tmpl[] = "/tmp/aipq_setting_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    setenv("AIPQ_TV_DIR", (std::string(tmpl) + "/tv").c_str(), 1);  // made on the first write
    SystemSetting setting;
    std::vector<int> first(34), second(34, 7), shortRow(33, 1), longRow(35, 1);
    std::iota(first.begin(), first.end(), -17);
    second[33] = -1;
    ASSERT_EQ(setting.setVideoPQParameters(first), 0);
    EXPECT_NE(setting.setVideoPQParameters(shortRow), 0);
    EXPECT_NE(setting.setVideoPQParameters(longRow), 0);
    ASSERT_EQ(setting.setVideoPQParameters(second), 0);

    const std::string firstLine =
        "-17 -16 -15 -14 -13 -12 -11 -10 -9 -8 -7 -6 -5 -4 -3 -2 -1 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 "
        "16\n";
    const std::string secondLine = "7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 7 -1\n";
    EXPECT_EQ(host::readTvText("pq_parameters"), secondLine);
    EXPECT_EQ(host::readTvText("pq_history"), firstLine + secondLine);
    unsetenv("AIPQ_TV_DIR");
    std::filesystem::remove_all(tmpl);
}

}  // namespace
