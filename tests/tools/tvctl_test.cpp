// tvctl refuses a command with any bad pair before it writes a single file.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "child_process.h"

namespace {

TEST(TvctlTest, AnyInvalidPairRefusesTheWholeCommandBeforeWriting) {
    char dir[] = "/tmp/aipq_tvctl_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("AIPQ_TV_DIR", dir, 1);
    const std::string tvctl = std::string(AIPQ_BIN_DIR) + "/tvctl ";
    // Every name, hidden temporaries included, then every content.
    auto files = [&] {
        std::string out;
        runCommand(std::string("cd ") + dir + " && ls -A && cat *", &out);
        return out;
    };
    ASSERT_EQ(runCommand(tvctl + "set game_mode 0 hdr_type 1"), 0);
    const std::string before = files();

    const struct {
        const char* args;
        const char* named;  // what the message must point at
    } cases[] = {
        {"set volume 3", "volume"},
        {"set hdr_type 2 bogus_key 1", "bogus_key"},
        {"set game_mode 1 hdr_type 1.5", "1.5"},
        {"set source_type 12abc", "12abc"},
        {"set source_type ''", "source_type"},
        {"set power_state 99999999999", "99999999999"},
        {"set game_mode", "KEY VALUE pairs"},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(runCommand(tvctl + c.args, &out), 2) << c.args;
        EXPECT_NE(out.find(c.named), std::string::npos) << c.args << ": " << out;
        EXPECT_EQ(files(), before) << c.args;
    }

    ASSERT_EQ(runCommand(tvctl + "set source_type 6 hdr_type -3 power_state +8"), 0);
    EXPECT_EQ(files(), "game_mode\nhdr_type\npower_state\nsource_type\n0\n-3\n8\n6\n");
    unsetenv("AIPQ_TV_DIR");
    runCommand(std::string("rm -r ") + dir);
}

}  // namespace
