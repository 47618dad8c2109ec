// The host system-information and system-state clients against a real TV-state directory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "system_info.h"
#include "system_state.h"
#include "tv_state_dir.h"

namespace {

using namespace std::chrono_literals;

enum class Kind { Aipq, Source, Player, Encrypted, Hdr, GameMode, Power };

struct Event {
    Kind kind;
    int first;   // mode for AIPQ and encryption, else the value
    int second;  // the bool for AIPQ and encryption, else 0
    std::thread::id thread;
};

class Recorder {
public:
    void add(Kind kind, int first, int second) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back({kind, first, second, std::this_thread::get_id()});
        m_cond.notify_all();
    }

    // Waits until at least `n` events have arrived; returns all of them.
    std::vector<Event> waitFor(size_t n, std::chrono::milliseconds timeout = 5000ms) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait_for(lock, timeout, [&] { return m_events.size() >= n; });
        return m_events;
    }

    size_t size() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events.size();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::vector<Event> m_events;
};

Recorder* rec(void* userData) {
    return static_cast<Recorder*>(userData);
}

void onAipq(AIPQMode mode, bool state, void* u) {
    rec(u)->add(Kind::Aipq, mode, state);
}
void onSource(SourceType type, void* u) {
    rec(u)->add(Kind::Source, type, 0);
}
void onPlayer(PlayerState state, void* u) {
    rec(u)->add(Kind::Player, state, 0);
}
void onEncrypted(StreamMode mode, bool encrypted, void* u) {
    rec(u)->add(Kind::Encrypted, mode, encrypted);
}
void onHdr(VideoInfoHDRType type, void* u) {
    rec(u)->add(Kind::Hdr, type, 0);
}
void onGameMode(VideoGameMode mode, void* u) {
    rec(u)->add(Kind::GameMode, mode, 0);
}
void onPower(TVPowerState state, void* u) {
    rec(u)->add(Kind::Power, state, 0);
}

void subscribeAll(SystemInfo& info, Recorder* recorder) {
    info.setAIPQChangedCallback(onAipq, recorder);
    info.setSourceTypeChangedCallback(onSource, recorder);
    info.setPlayerStateChangedCallback(onPlayer, recorder);
    info.setStreamEncryptedChangedCallback(onEncrypted, recorder);
    info.setVideoInfoHDRTypeChangedCallback(onHdr, recorder);
    info.setVideoGameModeChangedCallback(onGameMode, recorder);
}

class HostTvStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/aipq_tv_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
        setenv("AIPQ_TV_DIR", m_dir.c_str(), 1);
    }

    void TearDown() override {
        std::string cmd = "rm -rf '" + m_dir + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
        unsetenv("AIPQ_TV_DIR");
    }

    std::string m_dir;
};

TEST_F(HostTvStateTest, EachKeyNotifiesItsCallbackWithItsValue) {
    Recorder recorder;
    SystemInfo info;
    subscribeAll(info, &recorder);

    struct Case {
        const char* key;
        int value;
        Kind kind;
        int first;
        int second;
    };
    const Case cases[] = {
        {host::tvkey::kAipqSwitch, 1, Kind::Aipq, AIPQ_MODE_SWITCH, 1},
        {host::tvkey::kAipqAvailable, 1, Kind::Aipq, AIPQ_MODE_AVAILABLE, 1},
        {host::tvkey::kAipqSwitch, 0, Kind::Aipq, AIPQ_MODE_SWITCH, 0},
        {host::tvkey::kSourceType, 6, Kind::Source, 6, 0},
        {host::tvkey::kPlayerState, 2, Kind::Player, 2, 0},
        {host::tvkey::kEncryptedSource1, 1, Kind::Encrypted, 2, 1},
        {host::tvkey::kEncryptedSource6Or9, 1, Kind::Encrypted, 1, 1},
        {host::tvkey::kEncryptedSource6Or9, 0, Kind::Encrypted, 1, 0},
        {host::tvkey::kHdrType, 3, Kind::Hdr, 3, 0},
        {host::tvkey::kGameMode, 1, Kind::GameMode, 1, 0},
    };
    size_t n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        ASSERT_TRUE(host::writeTvInt(c.key, c.value));
        ++n;
        std::vector<Event> events = recorder.waitFor(n);
        ASSERT_EQ(events.size(), n);
        EXPECT_EQ(events.back().kind, c.kind);
        EXPECT_EQ(events.back().first, c.first);
        EXPECT_EQ(events.back().second, c.second);
        EXPECT_NE(events.back().thread, std::this_thread::get_id());
    }
}

TEST_F(HostTvStateTest, SupportedAndPowerStateDoNotNotifySystemInfo) {
    Recorder recorder;
    SystemInfo info;
    subscribeAll(info, &recorder);

    ASSERT_TRUE(host::writeTvInt(host::tvkey::kAipqSupported, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kPowerState, 8));
    ASSERT_TRUE(host::writeTvFileAtomic("pq_parameters", "1 2 3\n"));
    // Events arrive in order on one thread: once this one is in, the writes before it gave nothing.
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 0));
    std::vector<Event> events = recorder.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Kind::GameMode);
}

TEST_F(HostTvStateTest, GettersReadTheFilesAndMissingReadsZero) {
    SystemInfo info;
    EXPECT_FALSE(info.getAIPQSupported());
    EXPECT_FALSE(info.getAIPQSwitchState());
    EXPECT_EQ(info.getSourceType(), 0);
    EXPECT_EQ(info.getPlayerState(), 0);
    EXPECT_EQ(info.getVideoInfoHDRType(), 0);
    EXPECT_EQ(info.getVideoGameMode(), 0);
    EXPECT_FALSE(info.getStreamEncryptedSource1());
    EXPECT_FALSE(info.getStreamEncryptedSource6Or9());

    ASSERT_TRUE(host::writeTvInt(host::tvkey::kAipqSupported, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kAipqSwitch, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kAipqAvailable, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kSourceType, 9));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kPlayerState, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kEncryptedSource1, 1));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kEncryptedSource6Or9, 0));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kHdrType, 2));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 1));
    EXPECT_TRUE(info.getAIPQSupported());
    EXPECT_TRUE(info.getAIPQSwitchState());
    EXPECT_TRUE(info.getAIPQAvailable());
    EXPECT_EQ(info.getSourceType(), 9);
    EXPECT_EQ(info.getPlayerState(), 1);
    EXPECT_TRUE(info.getStreamEncryptedSource1());
    EXPECT_FALSE(info.getStreamEncryptedSource6Or9());
    EXPECT_EQ(info.getVideoInfoHDRType(), 2);
    EXPECT_EQ(info.getVideoGameMode(), 1);
}

TEST_F(HostTvStateTest, SetAIPQSwitchStateWritesTheFileAndNotifies) {
    Recorder recorder;
    SystemInfo info;
    info.setAIPQChangedCallback(onAipq, &recorder);
    EXPECT_EQ(info.setAIPQSwitchState(true), 0);
    EXPECT_EQ(host::readTvInt(host::tvkey::kAipqSwitch), 1);
    std::vector<Event> events = recorder.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].first, AIPQ_MODE_SWITCH);
    EXPECT_EQ(events[0].second, 1);
    EXPECT_TRUE(info.getAIPQSwitchState());
}

TEST_F(HostTvStateTest, RepeatedIdenticalWritesNotifyEveryTime) {
    Recorder recorder;
    SystemInfo info;
    info.setVideoGameModeChangedCallback(onGameMode, &recorder);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 1));
    }
    std::vector<Event> events = recorder.waitFor(5);
    ASSERT_EQ(events.size(), 5u);
    for (const Event& e : events) {
        EXPECT_EQ(e.kind, Kind::GameMode);
        EXPECT_EQ(e.first, 1);
    }
}

TEST_F(HostTvStateTest, PlainWriteInPlaceNotifiesToo) {
    Recorder recorder;
    SystemInfo info;
    info.setPlayerStateChangedCallback(onPlayer, &recorder);
    // As a shell's `echo 2 > player_state` does it: truncate and write the file itself.
    int fd = open(host::tvStatePath(host::tvkey::kPlayerState).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "2\n", 2), 2);
    close(fd);
    std::vector<Event> events = recorder.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Kind::Player);
    EXPECT_EQ(events[0].first, 2);
}

TEST_F(HostTvStateTest, NullCallbackRemovesTheSubscription) {
    Recorder removed;
    Recorder kept;
    SystemInfo info;
    info.setVideoInfoHDRTypeChangedCallback(onHdr, &removed);
    info.setVideoGameModeChangedCallback(onGameMode, &kept);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kHdrType, 1));
    ASSERT_EQ(removed.waitFor(1).size(), 1u);

    info.setVideoInfoHDRTypeChangedCallback(nullptr, nullptr);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kHdrType, 2));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 0));
    // Events arrive in order on one thread: the game mode one comes after the dropped HDR one.
    ASSERT_EQ(kept.waitFor(1).size(), 1u);
    EXPECT_EQ(removed.size(), 1u);
}

// A callback that takes its time, to catch removal racing with a call in progress.
struct SlowCallback {
    std::atomic<bool> running{false};
    std::atomic<bool> entered{false};
    std::atomic<int> calls{0};
};

void onSlowGameMode(VideoGameMode, void* u) {
    auto* slow = static_cast<SlowCallback*>(u);
    slow->running = true;
    slow->entered = true;
    std::this_thread::sleep_for(100ms);
    ++slow->calls;
    slow->running = false;
}

TEST_F(HostTvStateTest, NoCallbackRunsAfterItsRemovalReturns) {
    SlowCallback slow;
    SystemInfo info;
    info.setVideoGameModeChangedCallback(onSlowGameMode, &slow);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 1));
    for (int i = 0; i < 500 && !slow.entered; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(slow.entered);
    info.setVideoGameModeChangedCallback(nullptr, nullptr);
    EXPECT_FALSE(slow.running);
    EXPECT_EQ(slow.calls, 1);
}

struct SelfRemoving {
    SystemInfo* info = nullptr;
    Recorder recorder;
    Recorder barrier;
};

void onSourceRemoveSelf(SourceType type, void* u) {
    auto* self = static_cast<SelfRemoving*>(u);
    self->info->setSourceTypeChangedCallback(nullptr, nullptr);
    self->recorder.add(Kind::Source, type, 0);
}

TEST_F(HostTvStateTest, CallbackMayRemoveItselfWithoutDeadlock) {
    SystemInfo info;
    SelfRemoving self;
    self.info = &info;
    info.setSourceTypeChangedCallback(onSourceRemoveSelf, &self);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kSourceType, 3));
    ASSERT_EQ(self.recorder.waitFor(1).size(), 1u);
    info.setVideoGameModeChangedCallback(onGameMode, &self.barrier);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kSourceType, 4));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 0));
    ASSERT_EQ(self.barrier.waitFor(1).size(), 1u);
    EXPECT_EQ(self.recorder.size(), 1u);
}

// Holds the watcher thread inside a callback until released.
struct Gate {
    std::mutex mutex;
    std::condition_variable cond;
    bool entered = false;
    bool open = false;
};

void onGatedGameMode(VideoGameMode, void* u) {
    auto* gate = static_cast<Gate*>(u);
    std::unique_lock<std::mutex> lock(gate->mutex);
    gate->entered = true;
    gate->cond.notify_all();
    gate->cond.wait(lock, [&] { return gate->open; });
}

TEST_F(HostTvStateTest, AfterAQueueOverflowEveryKeyIsReadAgain) {
    long limit = 0;
    if (FILE* f = std::fopen("/proc/sys/fs/inotify/max_queued_events", "r")) {
        if (std::fscanf(f, "%ld", &limit) != 1) {
            limit = 0;
        }
        std::fclose(f);
    }
    if (limit <= 0 || limit > 100000) {
        GTEST_SKIP() << "inotify queue limit " << limit;
    }
    LogCapture log;
    Gate gate;
    Recorder recorder;
    SystemInfo info;
    info.setVideoGameModeChangedCallback(onGatedGameMode, &gate);
    info.setSourceTypeChangedCallback(onSource, &recorder);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 1));
    {
        std::unique_lock<std::mutex> lock(gate.mutex);
        ASSERT_TRUE(gate.cond.wait_for(lock, 5s, [&] { return gate.entered; }));
    }
    // Each atomic write queues two events (the temporary closed, then renamed into place).
    for (long i = 0; i <= limit / 2 + 10; ++i) {
        ASSERT_TRUE(host::writeTvInt(host::tvkey::kPlayerState, 1));
    }
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kSourceType, 5));  // lost in the overflow
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        gate.open = true;
    }
    gate.cond.notify_all();
    std::vector<Event> events = recorder.waitFor(1);
    ASSERT_GE(events.size(), 1u);
    EXPECT_EQ(events.back().first, 5);
    EXPECT_TRUE(log.contains("inotify queue overflow, re-reading every key."));
    info.setVideoGameModeChangedCallback(nullptr, nullptr);
}

TEST_F(HostTvStateTest, DestroyingClientsWhileEventsArriveIsClean) {
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        int i = 0;
        while (writing) {
            host::writeTvInt(i % 2 == 0 ? host::tvkey::kPlayerState : host::tvkey::kPowerState, i % 3);
            ++i;
        }
    });
    Recorder recorder;
    for (int round = 0; round < 30; ++round) {
        SystemInfo info;
        SystemState state("test");
        info.setPlayerStateChangedCallback(onPlayer, &recorder);
        state.setTVPowerStateCallback(onPower, &recorder);
        std::this_thread::sleep_for(2ms);
    }
    writing = false;
    writer.join();
    EXPECT_GT(recorder.size(), 0u);
}

TEST_F(HostTvStateTest, GarbageFileReadsZeroAndIsLogged) {
    LogCapture log;
    Recorder recorder;
    SystemInfo info;
    info.setVideoInfoHDRTypeChangedCallback(onHdr, &recorder);
    ASSERT_TRUE(host::writeTvFileAtomic(host::tvkey::kHdrType, "dolby\n"));
    std::vector<Event> events = recorder.waitFor(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].first, 0);
    EXPECT_EQ(info.getVideoInfoHDRType(), 0);
    EXPECT_GE(
        log.count("[Platform Adaptation] " + host::tvStatePath(host::tvkey::kHdrType) + " holds no integer"),
        2);

    // The client goes on: the next good value arrives as usual.
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kHdrType, 1));
    events = recorder.waitFor(2);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].first, 1);
}

TEST_F(HostTvStateTest, ClientCreatesAMissingDirectory) {
    std::string nested = m_dir + "/a/b";
    setenv("AIPQ_TV_DIR", nested.c_str(), 1);
    Recorder recorder;
    SystemInfo info;
    struct stat st;
    ASSERT_EQ(stat(nested.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    info.setSourceTypeChangedCallback(onSource, &recorder);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kSourceType, 5));
    ASSERT_EQ(recorder.waitFor(1).size(), 1u);
}

TEST_F(HostTvStateTest, PowerStateNotifiesTheSystemStateClient) {
    Recorder recorder;
    SystemState state("ai_manager");
    state.setTVPowerStateCallback(onPower, &recorder);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kPowerState, 8));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kPowerState, 8));
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kGameMode, 1));  // not a power-state key
    std::vector<Event> events = recorder.waitFor(2);
    ASSERT_EQ(events.size(), 2u);
    for (const Event& e : events) {
        EXPECT_EQ(e.kind, Kind::Power);
        EXPECT_EQ(e.first, 8);
        EXPECT_NE(e.thread, std::this_thread::get_id());
    }

    state.setTVPowerStateCallback(nullptr, nullptr);
    ASSERT_TRUE(host::writeTvInt(host::tvkey::kPowerState, 0));
    std::this_thread::sleep_for(100ms);  // nothing to wait for: give a wrong call the time to come
    EXPECT_EQ(recorder.size(), 2u);
}

}  // namespace
