// The host TV state: one file per key; every write notifies its client with the value read back.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "system_info.h"
#include "system_state.h"
#include "tv_state_dir.h"

namespace {

std::mutex g_mutex;
std::condition_variable g_cond;
std::vector<std::string> g_events;

void record(const char* what, int a, int b = -1) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events.push_back(std::string(what) + " " + std::to_string(a) + (b < 0 ? "" : " " + std::to_string(b)));
    g_cond.notify_all();
}

// The events so far, once there are n or after 5 s.
std::vector<std::string> events(size_t n) {
    std::unique_lock<std::mutex> lock(g_mutex);
    g_cond.wait_for(lock, std::chrono::seconds(5), [n] { return g_events.size() >= n; });
    return g_events;
}

TEST(HostTvStateTest, EachWriteNotifiesTheValueAndGarbageReadsAsZero) {
    char tmpl[] = "/tmp/aipq_tv_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    setenv("AIPQ_TV_DIR", tmpl, 1);
    SystemInfo info;
    SystemState state("test");
    info.setAIPQChangedCallback([](AIPQMode m, bool on, void*) { record("aipq", m, on); }, nullptr);
    info.setSourceTypeChangedCallback([](SourceType t, void*) { record("source", t); }, nullptr);
    info.setPlayerStateChangedCallback([](PlayerState s, void*) { record("player", s); }, nullptr);
    info.setStreamEncryptedChangedCallback([](StreamMode m, bool e, void*) { record("enc", m, e); }, nullptr);
    info.setVideoInfoHDRTypeChangedCallback([](VideoInfoHDRType t, void*) { record("hdr", t); }, nullptr);
    info.setVideoGameModeChangedCallback([](VideoGameMode m, void*) { record("game", m); }, nullptr);
    state.setTVPowerStateCallback([](TVPowerState s, void*) { record("power", s); }, nullptr);

    using namespace host::tvkey;
    const struct {
        const char* key;
        const char* text;
        bool inPlace;  // as a shell's `echo 2 > file` writes, rather than by rename
        const char* event;
        std::function<int()> read;  // gives what the notification carried
    } cases[] = {
        {kAipqSwitch, "1\n", false, "aipq 2 1", [&] { return info.getAIPQSwitchState(); }},
        {kAipqAvailable, "1\n", false, "aipq 3 1", [&] { return info.getAIPQAvailable(); }},
        {kAipqSwitch, "0\n", false, "aipq 2 0", [&] { return info.getAIPQSwitchState(); }},
        {kSourceType, "9\n", false, "source 9", [&] { return info.getSourceType(); }},
        {kPlayerState, "2\n", true, "player 2", [&] { return info.getPlayerState(); }},
        {kEncryptedSource1, "1\n", false, "enc 2 1", [&] { return info.getStreamEncryptedSource1(); }},
        {kEncryptedSource6Or9, "1\n", false, "enc 1 1", [&] { return info.getStreamEncryptedSource6Or9(); }},
        {kHdrType, "3\n", false, "hdr 3", [&] { return info.getVideoInfoHDRType(); }},
        {kHdrType, "dolby\n", false, "hdr 0", [&] { return info.getVideoInfoHDRType(); }},
        {kGameMode, "1\n", true, "game 1", [&] { return info.getVideoGameMode(); }},
        {kGameMode, "1\n", false, "game 1", [&] { return info.getVideoGameMode(); }},
        {kPowerState, "8\n", false, "power 8", [] { return host::readTvInt(kPowerState); }},
    };
    size_t n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " <- " + c.text);
        if (c.inPlace) {
            std::ofstream(host::tvStatePath(c.key)) << c.text;
        } else {
            ASSERT_TRUE(host::writeTvFileAtomic(c.key, c.text));
        }
        const std::vector<std::string> seen = events(++n);
        ASSERT_EQ(seen.size(), n);
        EXPECT_EQ(seen.back(), c.event);
        EXPECT_EQ(c.read(), std::atoi(std::strrchr(c.event, ' ')));
    }
    unsetenv("AIPQ_TV_DIR");
    std::filesystem::remove_all(tmpl);
}

}  // namespace
