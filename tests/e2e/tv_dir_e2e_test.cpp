// The host TV directory in careless hands: the daemon reads on, follows it and still ends promptly.
#include <filesystem>

#include "e2e_harness.h"

namespace e2e {
namespace {

class TvDirE2E : public Harness {};

// From SIGTERM to the daemon's exit, whatever the TV directory holds.
constexpr auto kShutdownBound = 3s;

// Each entry $E is renamed over state file $K, so the daemon is told of it and reads it at once.
TEST_F(TvDirE2E, WhatStandsForAStateFileReadsAsZeroWithoutBlockingAndTvctlWritesNotThroughIt) {
    startService();
    startDaemon();
    ASSERT_TRUE(eventually([&] { return !pqRows("pq_history").empty(); })) << m_daemon->output();
    auto peakKb = [&] {
        const std::string status = readFile("/proc/" + std::to_string(m_daemon->pid()) + "/status");
        return std::stol(status.substr(status.find("VmHWM:") + 6));
    };
    const long peak = peakKb();
    const std::tuple<std::string, std::string, bool> cases[] = {
        // state file, how its stand-in is made, tvctl refuses to write through it
        {"game_mode", "mkdir $E", true},
        {"encrypted_source1", "mkfifo $E", true},
        {"encrypted_source6or9", "ln -s /dev/zero $E", true},
        {"power_state", "head -c 32M /dev/zero | tr '\\0' 7 >$E", false},
        {"game_mode", "printf '1\\0\\377' >$E", false},
    };
    for (const auto& [key, make, refused] : cases) {
        SCOPED_TRACE(make);
        const std::string path = kTvDir + "/" + key, set = "set aipq_supported 0 " + key + " 0";
        const int logged = m_daemon->count(path);
        ASSERT_EQ(runCommand("cd " + kTvDir + "; E=.n K=" + key + "; " + make + " && rm -r $K && mv $E $K"),
                  0);
        EXPECT_TRUE(m_daemon->waitForOutput(path, 10s, logged + 1)) << m_daemon->output();
        ASSERT_TRUE(m_daemon->running()) << m_daemon->output();
        if (!refused) {
            tvctl(set);
            continue;
        }
        const auto type = std::filesystem::symlink_status(path).type();
        std::string out;
        EXPECT_NE(runCommand("AIPQ_TV_DIR=" + kTvDir + " " + kBin + "/tvctl " + set, &out), 0);
        EXPECT_NE(out.find(path), std::string::npos) << out;
        EXPECT_EQ(std::filesystem::symlink_status(path).type(), type);
        EXPECT_EQ(readFile(kTvDir + "/aipq_supported"), "1\n") << "nothing is written";
    }
    EXPECT_LT(peakKb() - peak, 16 * 1024) << "kB more at the peak";
    const size_t rows = pqRows("pq_history").size();
    EXPECT_TRUE(eventually([&] { return pqRows("pq_history").size() > rows; })) << m_daemon->output();
    const auto signalled = std::chrono::steady_clock::now();
    stop(*m_daemon);
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, kShutdownBound);
}

// Deleted and made again, or swapped under a symlink; a change written before the daemon watches
// the new directory is seen as well. The daemon may be writing a PQ row into the directory while
// rm empties it, which then fails as not empty: rm again.
TEST_F(TvDirE2E, ReplacedDirectoryIsWatchedAgain) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "rm -rf $D || rm -rf $D || rm -rf $D"},
        {"mv $D $D.a && ln -s $D.a $D", "mkdir $D.b && ln -s $D.b $D.n && mv -T $D.n $D"},
    };
    startService();
    for (const auto& [before, replace] : cases) {
        SCOPED_TRACE(replace);
        ASSERT_EQ(runCommand("cd /var/run; D=aipq_tv; rm -rf $D.a $D.b; " + before), 0);
        startDaemon();
        const long predicted = predicts();
        ASSERT_TRUE(eventually([&] { return predicts() > predicted + 1; })) << m_daemon->output();
        ASSERT_EQ(runCommand("cd /var/run; D=aipq_tv; " + replace), 0);
        tvctl("preset watching");
        tvctl("set aipq_switch 0");
        // Seen in the new directory: the worker parks and lets the model go.
        EXPECT_TRUE(eventually([&] { return commands().back() == proto::kCmdReleaseModel; }, 10s))
            << m_daemon->output();
        stop(*m_daemon);
        tvctl("set aipq_switch 1");
    }
}

}  // namespace
}  // namespace e2e
