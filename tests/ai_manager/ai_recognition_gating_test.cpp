// The worker's gates: every notification that reopens a gate must reach a parked worker, the
// HDR gate keeps its deliberate asymmetry, and a stop gets the worker out of every gate but HDR.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "controller_fakes.h"
#include "host_platform.h"
#include "log_capture.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

class GatingTest : public ControllerTestBase {
protected:
    void wireAndStart() {
        wire();
        controller.handlePlayerStateChanged(PLAYER_STATE_PLAYING);
        ASSERT_TRUE(AIRecognitionTestPeer::loopRunning(controller));
    }

    static double msSince(Clock::time_point t0) {
        return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    }
};

// The release takes the gate's mutex, so a notification that lands between the worker's test and
// its wait is held back until the worker waits. A release that skipped the mutex would be lost
// here, and the untimed AIPQ wait would never end.
TEST_F(GatingTest, AipqNotificationRacingTheGateTestIsNeverLost) {
    wireAndStart();
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(1, 5s));
    for (int i = 0; i < 300; ++i) {
        int offReads = info.aipqOffReads.value();
        int done = recognition.recognitions.value();
        info.aipqEnable = false;
        ASSERT_TRUE(info.aipqOffReads.waitAtLeast(offReads + 1, 5s)) << "iteration " << i;
        // The worker is inside the gate: between its test and its wait, or already waiting.
        info.aipqEnable = true;
        controller.handleAIPQChanged(true);
        ASSERT_TRUE(recognition.recognitions.waitAtLeast(done + 1, 5s)) << "wake-up lost at iteration " << i;
    }
}

TEST_F(GatingTest, AipqOffParksUntilEnabledAndOnlyEnableWakes) {
    info.aipqEnable = false;
    wireAndStart();
    ASSERT_TRUE(info.aipqOffReads.waitAtLeast(1, 5s));
    std::this_thread::sleep_for(100ms);
    // Parking withdrew the model once; nothing was recognised.
    EXPECT_EQ(recognition.releaseModels.load(), 1);
    EXPECT_EQ(recognition.recognitions.value(), 0);

    int reads = info.aipqOffReads.value();
    controller.handleAIPQChanged(false);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(info.aipqOffReads.value(), reads) << "a disable notification must not wake the worker";

    // An enable notification wakes it even if the state reads off again: it tests and parks anew.
    controller.handleAIPQChanged(true);
    EXPECT_TRUE(info.aipqOffReads.waitAtLeast(reads + 1, 5s));
    EXPECT_EQ(recognition.recognitions.value(), 0);

    info.aipqEnable = true;
    controller.handleAIPQChanged(true);
    EXPECT_TRUE(recognition.recognitions.waitAtLeast(1, 5s));
}

TEST_F(GatingTest, HdrTypeChangeAwayWakesAtOnceChangeBackWaitsForTimeOut) {
    host::setTimeScale(20.0);  // the 30 s HDR wait lasts 1.5 s
    info.hdrType = 2;
    wireAndStart();
    ASSERT_TRUE(info.hdrTests.waitAtLeast(1, 5s));
    std::this_thread::sleep_for(100ms);

    // 1 -> 2 (the cache now says 2): the worker is woken at once, tests again and parks again.
    int tests = info.hdrTests.value();
    auto t0 = Clock::now();
    controller.handleVideoInfoHDRTypeChanged(static_cast<VideoInfoHDRType>(2));
    ASSERT_TRUE(info.hdrTests.waitAtLeast(tests + 1, 5s));
    EXPECT_LT(msSince(t0), 1000.0) << "a change away from type 1 must wake the HDR wait";
    EXPECT_EQ(recognition.recognitions.value(), 0);

    // 2 -> 1: nobody is woken; recognition resumes only when the running wait times out.
    std::this_thread::sleep_for(50ms);
    t0 = Clock::now();
    info.hdrType = 1;
    controller.handleVideoInfoHDRTypeChanged(VIDEO_INFO_HDR_TYPE_ALLOWED);
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(recognition.recognitions.value(), 0) << "a change to type 1 must not wake the HDR wait";
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(1, 10s));
    EXPECT_GT(msSince(t0), 900.0);
}

struct GateCase {
    const char* name;
    double scale;
    std::function<void(FakeSystemInfoManager&, FakeMemInfo&)> close;
    const char* parkedLog;
    bool promptStop;
};

void PrintTo(const GateCase& c, std::ostream* os) {
    *os << c.name;
}

class StopWhileParkedTest : public GatingTest, public ::testing::WithParamInterface<GateCase> {};

TEST_P(StopWhileParkedTest, StopReturnsPromptlyExceptFromTheHdrWait) {
    const GateCase& c = GetParam();
    host::setTimeScale(c.scale);
    c.close(info, meminfo);
    wireAndStart();
    ASSERT_TRUE(log.waitFor(c.parkedLog, 10s)) << c.name;
    std::this_thread::sleep_for(300ms);  // well inside the wait

    auto t0 = Clock::now();
    controller.stop();
    double ms = msSince(t0);
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
    if (c.promptStop) {
        EXPECT_LT(ms, 1500.0) << c.name << ": stop must release this gate";
    } else {
        EXPECT_GT(ms, 1000.0) << c.name << ": stop must not release this gate, only its time-out ends it";
    }
    EXPECT_EQ(recognition.recognitions.value(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Gates, StopWhileParkedTest,
    ::testing::Values(
        GateCase{"aipq", 1.0, [](FakeSystemInfoManager& i, FakeMemInfo&) { i.aipqEnable = false; },
                 "[waitAIPQEnable]", true},
        GateCase{"gameMode", 1.0, [](FakeSystemInfoManager& i, FakeMemInfo&) { i.gameMode = 1; },
                 "[waitVideoGameModeDisable]", true},
        GateCase{"unencrypted", 1.0, [](FakeSystemInfoManager& i, FakeMemInfo&) { i.encrypted = true; },
                 "before add wait time", true},
        // 10 kB is below both threshold pairs: lack of memory.
        GateCase{"memory", 1.0, [](FakeSystemInfoManager&, FakeMemInfo& m) { m.setAvailable(10); },
                 "before add wait time", true},
        GateCase{"hdr", 10.0, [](FakeSystemInfoManager& i, FakeMemInfo&) { i.hdrType = 2; },
                 "before add wait time", false}),
    [](const ::testing::TestParamInfo<GateCase>& p) { return std::string(p.param.name); });

TEST_F(GatingTest, NotificationsWakeOnlyOnValuesThatMayReopenTheirGate) {
    host::setTimeScale(1.0);
    info.gameMode = 1;
    wireAndStart();
    ASSERT_TRUE(info.gameModeTests.waitAtLeast(1, 5s));
    std::this_thread::sleep_for(100ms);

    int tests = info.gameModeTests.value();
    controller.handleVideoGameModeChanged(VIDEO_GAME_MODE_ON);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(info.gameModeTests.value(), tests) << "game mode 1 must wake nobody";
    controller.handleVideoGameModeChanged(static_cast<VideoGameMode>(3));
    EXPECT_TRUE(info.gameModeTests.waitAtLeast(tests + 1, 5s));

    // Move the worker to the unencrypted gate (60 s wait at real time).
    info.gameMode = 0;
    info.encrypted = true;
    controller.handleVideoGameModeChanged(VIDEO_GAME_MODE_OFF);
    ASSERT_TRUE(info.encryptedTests.waitAtLeast(1, 5s));
    std::this_thread::sleep_for(100ms);
    tests = info.encryptedTests.value();
    controller.handleStreamEncryptedChanged(true);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(info.encryptedTests.value(), tests) << "an encrypted report must wake nobody";
    controller.handleStreamEncryptedChanged(false);
    EXPECT_TRUE(info.encryptedTests.waitAtLeast(tests + 1, 5s));

    // Memory gate: states 0 and 3 wake nobody, 1 and 2 do.
    info.encrypted = false;
    meminfo.setAvailable(10);
    controller.handleStreamEncryptedChanged(false);
    ASSERT_TRUE(log.waitFor("[waitMemoryEnough]", 5s));
    std::this_thread::sleep_for(200ms);
    int memTests = log.count("[waitMemoryEnough]");
    controller.handleMemoryState(MemoryStateUnknown);
    controller.handleMemoryState(MemoryStateLack);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(log.count("[waitMemoryEnough]"), memTests);
    controller.handleMemoryState(MemoryStateLimit);
    EXPECT_TRUE(log.waitFor("[waitMemoryEnough]", 5s, memTests + 2));  // ENTER and RETURN of the next test
}

TEST_F(GatingTest, PowerStateEightReplaysTheTvStateOthersDoNothing) {
    controller.init(nullptr, nullptr, &info, nullptr, nullptr, nullptr);
    int starts = info.startCalls.value();
    for (int s : {0, 1, 7, 9, -8}) {
        controller.handleTVPowerStateChanged(static_cast<TVPowerState>(s));
    }
    EXPECT_EQ(info.startCalls.value(), starts);
    controller.handleTVPowerStateChanged(TV_POWER_STATE_REPLAY);
    controller.handleTVPowerStateChanged(TV_POWER_STATE_REPLAY);
    EXPECT_EQ(info.startCalls.value(), starts + 2);
}

TEST_F(GatingTest, SourceChangeCanOnlyStopThePlayerStateStartsAgain) {
    wireAndStart();
    info.sourceType = 7;
    controller.handleSourceAndAppChanged(static_cast<SourceType>(7));
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));

    info.sourceType = 2;
    controller.handleSourceAndAppChanged(static_cast<SourceType>(2));
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller)) << "a source change never starts the worker";

    controller.handlePlayerStateChanged(PLAYER_STATE_PLAYING);
    EXPECT_TRUE(AIRecognitionTestPeer::loopRunning(controller));
    info.playerState = 3;
    controller.handlePlayerStateChanged(static_cast<PlayerState>(3));
    EXPECT_FALSE(AIRecognitionTestPeer::loopRunning(controller));
}

}  // namespace
