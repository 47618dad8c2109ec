// The recognition controller and the TV-state adapters that feed it. A controller's handler leaves
// a log line, the only trace of a call into a controller that is wired to nothing.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "controller_fakes.h"
#include "process_entry.h"

using namespace std::chrono_literals;
using Peer = AIRecognitionTestPeer;
using T = ControllerTestBase;

namespace {

const auto uptime = FakeRecognitionManager::uptime;

// clang-format off
// Each scene's offsets: brightness, contrast, saturation, sharpness, memc, nr, then B, S and H of
// magenta, red, yellow, green, cyan, blue and flesh tone.
const int kSceneRows[20][27] = {
    {0, -5, -6,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Cartoon
    {0,  0,  0,  0,  5, -1, 0, 0, 0, 0, 0, 0, 2, 4, 3, 2, 10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Soccerball
    {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Sunflowers
    {0, -1,  0,  0, -1, -1, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 2, 13, 0, 2, 14, 0, 0, 0, 0},  // Sky
    {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Daisy
    {0,  0,  0,  2, -1, -1, 0, 5, 0, 0, 5, 0, 0, 5, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0},  // Fruite
    {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 0, 0, 2, 4, 3, 2, 14, 4, 0, 4, 0, 0, 0, 0, 0, 0, 0},  // Tree
    {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Tulips
    {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Cat
    {1,  0,  0,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Performance
    {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Dandelion
    {0,  0,  5,  4, -1, -1, 0, 8, 0, 0, 8, 0, 0, 4, 0, 0, 8, 0, 0, 8, 0, 0, 8, 0, 0, 6, 0},  // Building
    {0,  2,  0,  0, -1, -1, 0, 5, 0, 0, 5, 0, 0, 5, 0, 0, 5, 0, 0, 5, 0, 0, 5, 0, 1, 2, 0},  // Food
    {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Dog
    {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Roses
    {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 0, 0, 2, 4, 3, 2, 14, 4, 0, 4, 0, 0, 0, 0, 0, 0, 0},  // Grassland
    {0,  0,  0, -4, -1, -1, 0, 0, 0, 0, 1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 5, -1},  // Face
    {0, -3,  0,  0, -1,  1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Snow
    {1,  0,  0,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Indoor
    {0,  0,  0,  0, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},  // Invalid
};
// clang-format on

// The row the platform gets: the first six offsets, then each colour's selector (0 to 6) and its
// three offsets.
std::vector<int> sceneRow(int label) {
    const int* row = kSceneRows[label];
    std::vector<int> out(row, row + 6);
    for (int k = 0; k < 7; ++k) {
        out.push_back(k);
        out.insert(out.end(), row + 6 + 3 * k, row + 9 + 3 * k);
    }
    return out;
}

using ControllerTest = ControllerTestBase;

TEST_F(ControllerTest, SecondsToWaitBeforeTheNextCycle) {
    const struct {
        int32_t period;
        OsalTime start, end;
        int wait;
    } cases[] = {
        {5000000, {100, 0}, {104, 500000}, 1},  // half a second left still waits one
        {5000000, {100, 0}, {105, 0}, 0},       // exactly one period: due now
        {5000000, {100, 0}, {107, 0}, 0},      {5000000, {100, 0}, {101, 500000}, 3},
        {5000000, {100, 0}, {100, 0}, 5},      {5000000, {100, 1}, {100, 0}, 0},  // start after end
        {30000000, {100, 0}, {110, 0}, 20},    {-1, {100, 0}, {200, 0}, 5},       // no period: look in 5 s
    };
    for (const auto& c : cases) {
        Peer::setLoopInteval(controller, c.period);
        OsalTime start = c.start;
        OsalTime end = c.end;
        EXPECT_EQ(controller.getNextAiRecognitionTime(start, end), c.wait) << "case " << &c - cases;
    }
}

// A loaded model leaves less to spare, so less is demanded of what remains. The period follows the
// state: 5 s, 30 s when memory is limited, none when it is short or unknown.
TEST_F(ControllerTest, MemoryGateThresholdsDependOnTheModelAndSetThePeriod) {
    controller.updateLoopInteval();
    EXPECT_EQ(Peer::loopInteval(controller), -1) << "no monitor";
    wire();
    Peer::setLoopInteval(controller, 5000000);
    controller.updateLoopInteval();
    EXPECT_EQ(Peer::loopInteval(controller), -1) << "nothing read yet";
    const struct {
        bool loaded;
        int available;
        bool parks;
        int32_t period;
    } cases[] = {{false, 120, false, 5000000}, {false, 119, false, 30000000}, {false, 90, false, 30000000},
                 {false, 89, true, -1},        {true, 80, false, 5000000},    {true, 79, false, 30000000},
                 {true, 50, false, 30000000},  {true, 49, true, -1}};
    for (const auto& c : cases) {
        recognition.modelLoaded = c.loaded;
        meminfo.setAvailable(c.available);
        // No worker runs, so a closed gate returns at once instead of waiting.
        EXPECT_EQ(controller.waitMemoryEnough(), c.parks) << c.loaded << " " << c.available;
        EXPECT_EQ(Peer::loopInteval(controller), c.period) << c.loaded << " " << c.available;
    }
}

// The first cycle comes 2 s before a whole period; then the period runs from the end of one cycle
// to the start of the next, however long the cycle took.
TEST_F(ControllerTest, FirstCycleTwoSecondsEarlyThenAPeriodFromTheEndOfEachCycle) {
    host::setTimeScale(4.0);
    recognition.busySeconds = 2;
    wire();
    const double start = uptime();
    controller.start();
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(2, 30s));
    controller.stop();
    const auto spans = recognition.spans();
    EXPECT_GE(spans[0].first - start, 2.5);
    EXPECT_LT(spans[0].first - start, 4.5) << "3 s after the start, not a whole period";
    for (size_t i = 1; i < spans.size(); ++i) {
        EXPECT_GE(spans[i].first - spans[i - 1].second, 4.5) << "cycle " << i << " counted from a start";
    }
}

TEST_F(ControllerTest, RetriesReloadTheEnvironmentOrTheModelEachOncePerCycle) {
    wire();
    const std::pair<std::vector<int>, const char*> cases[] = {{{2, 3, 0}, "RERMR"}, {{3, 2, 0}, "RMRER"},
                                                              {{2, 2}, "RER"},      {{3, 3}, "RMR"},
                                                              {{2, 3, 2}, "RERMR"}, {{1}, "R"}};
    for (const auto& c : cases) {
        for (int r : c.first) {
            recognition.queue(r, svc::Sky);
        }
        const size_t before = recognition.trace().size();
        controller.recognitionProcess();
        EXPECT_EQ(recognition.trace().substr(before), c.second);
    }
    EXPECT_EQ(platform->rows(), std::vector<std::vector<int>>{sceneRow(svc::Sky)});
}

TEST_F(ControllerTest, OnlyAChangedSceneIsAppliedAndOnlyWithAipqOn) {
    wire();
    const std::pair<int, svc::AiPQPredictLabel> answers[] = {
        {0, svc::Sky}, {0, svc::Sky}, {0, svc::Food}, {1, svc::Dog}, {0, svc::Tree}};
    for (const auto& a : answers) {
        recognition.queue(a.first, a.second);
        info.aipqEnable = a.second != svc::Tree;  // switched off after the gates let the cycle through
        controller.recognitionProcess();
    }
    EXPECT_EQ(platform->rows(), (std::vector<std::vector<int>>{sceneRow(svc::Sky), sceneRow(svc::Food)}));
}

TEST_F(ControllerTest, ResetAppliesTheNeutralRowAndShowsInvalidWithoutAPicture) {
    wire();
    Peer::showInertOverlay(controller);
    controller.recognitionProcess();
    ASSERT_NE(Peer::backupPicture(controller), nullptr) << "the overlay keeps a copy of the frame";
    const std::string invalid = "Label: Invalid     Previous Label: Invalid\nPredict Labels: \n>>>>>> PQ";
    for (bool aipq : {true, false}) {
        // With AIPQ off the reset neither applies nor shows anything.
        info.aipqEnable = aipq;
        controller.resetConfig();
        EXPECT_EQ(platform->rows().size(), 2u);
        EXPECT_EQ(platform->rows().back(), sceneRow(svc::Invalid));
        EXPECT_EQ(Peer::backupPicture(controller), nullptr);
        EXPECT_EQ(log.count(invalid), 1) << "AIPQ " << aipq;
    }
    EXPECT_EQ(recognition.releases.value(), 2);
}

// The release takes the gate's mutex, so a notification that lands between the worker's test and
// its wait is held back until the worker waits; without it the untimed AIPQ wait would never end.
TEST_F(ControllerTest, AipqNotificationRacingTheGateTestIsNeverLost) {
    wire();
    controller.start();
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(1));
    for (int i = 0; i < 300; ++i) {
        const int offReads = info.aipqOffReads.value();
        const int done = recognition.recognitions.value();
        info.aipqEnable = false;
        ASSERT_TRUE(info.aipqOffReads.waitAtLeast(offReads + 1)) << "iteration " << i;
        info.aipqEnable = true;
        controller.handleAIPQChanged(true);
        ASSERT_TRUE(recognition.recognitions.waitAtLeast(done + 1)) << "wake-up lost at iteration " << i;
    }
}

// Player state starts and stops the worker (two starts make one); a source change stops it only for
// a source that forbids recognition and never starts one; power state 8 alone replays the TV
// state. A stop joins the worker, so only a start after a stop makes a new thread.
TEST_F(ControllerTest, PlayerStateAndSourceStartAndStopTheWorkerAndPowerStateEightReplays) {
    wire();
    const auto threads = [&] { return log.count("create thread success."); };
    const auto play = [&](int state) {
        info.playerState = state;
        controller.handlePlayerStateChanged(PlayerState(state));
    };
    play(1);
    play(2);
    EXPECT_EQ(threads(), 1);
    EXPECT_EQ(log.count("ai recognition thread is started, do not need to start again."), 1);
    for (int stopping : {0, 3}) {
        play(stopping);
        const int before = threads();
        for (SourceType source : {SOURCE_TYPE_1, SOURCE_TYPE_9}) {
            info.sourceType = source;
            controller.handleSourceAndAppChanged(source);
        }
        EXPECT_EQ(threads(), before) << "a source change started a worker";
        play(1);
        EXPECT_EQ(threads(), before + 1) << "player state " << stopping << " left the worker running";
    }
    for (SourceType source : {SOURCE_TYPE_1, SOURCE_TYPE_9, SourceType(7)}) {
        info.sourceType = source;
        controller.handleSourceAndAppChanged(source);
        info.sourceType = SOURCE_TYPE_1;
        play(1);
    }
    EXPECT_EQ(threads(), 4) << "source 7, and it alone, stops the worker";
    const int starts = info.starts.value();
    for (int state = 0; state <= 10; ++state) {
        controller.handleTVPowerStateChanged(TVPowerState(state));
    }
    EXPECT_EQ(info.starts.value(), starts + 1);
}

struct Gate {
    const char* name;
    int timeout;  // seconds; 0 when only a notification ends the wait
    void (*close)(T&);
    void (*reopenQuietly)(T&);
    EventCounter& (*tests)(T&);  // each test of the gate counts one
    void (*notify)(T&, int);
    std::vector<std::pair<int, bool>> values;  // notified, and whether it must wake the worker
};

void PrintTo(const Gate& g, std::ostream* os) {
    *os << g.name;
}

class GateTest : public ControllerTestBase, public ::testing::WithParamInterface<Gate> {
protected:
    void parkAtTheGate(double scale) {
        host::setTimeScale(scale);
        GetParam().close(*this);
        wire();
        controller.handlePlayerStateChanged(PLAYER_STATE_PLAYING);
        // Every gate withdraws the model before it waits.
        ASSERT_TRUE(recognition.releases.waitAtLeast(1)) << "the worker must park at the gate";
    }
};

TEST_P(GateTest, OnlyValuesThatMayReopenItWakeTheWorkerAndStopLeavesEveryGateButHdr) {
    const Gate& g = GetParam();
    const bool isHdr = g.timeout == 30;
    // Timed waits outlast the checks; HDR's must also end soon after the stop it ignores.
    parkAtTheGate(isHdr ? 10.0 : 1.0);
    for (const auto& v : g.values) {
        const int tests = g.tests(*this).value();
        g.notify(*this, v.first);
        if (v.second) {
            // Woken, it tests the gate again and parks anew.
            EXPECT_TRUE(g.tests(*this).waitAtLeast(tests + 1, 1s)) << v.first << ": wake-up lost";
        } else {
            std::this_thread::sleep_for(100ms);
            EXPECT_EQ(g.tests(*this).value(), tests) << v.first << " cannot reopen the gate, yet woke it";
        }
    }
    if (isHdr) {
        Peer::untilInTheHdrWait(controller);  // a stop before the wait would skip it
    }
    const auto t0 = std::chrono::steady_clock::now();
    controller.stop();
    const auto ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (isHdr) {
        EXPECT_GT(ms, 1000.0) << "the HDR wait is left to its time-out";
    } else {
        EXPECT_LT(ms, 1500.0) << "stop must release this gate";
    }
    EXPECT_EQ(recognition.recognitions.value(), 0);
}

class TimedGateTest : public GateTest {};

TEST_P(TimedGateTest, WithoutAWakeUpTheWaitReopensOnItsTimeOut) {
    const Gate& g = GetParam();
    parkAtTheGate(g.timeout / 1.5);  // the time-out lasts 1.5 s
    const double parked = uptime();
    g.reopenQuietly(*this);
    ASSERT_TRUE(recognition.recognitions.waitAtLeast(1, 10s));
    const double waited = uptime() - parked;
    EXPECT_GT(waited, 0.8 * g.timeout);
    EXPECT_LT(waited, 1.4 * g.timeout);
}

// The handler reads the type the info manager has cached by then.
void hdr(T& t, int type) {
    t.info.hdrType = type;
    t.controller.handleVideoInfoHDRTypeChanged(VideoInfoHDRType(type));
}

// clang-format off
const Gate kGates[] = {
    // The reset before each park reads AIPQ again; the model it withdraws counts the parks.
    Gate{"aipq", 0, [](T& t) { t.info.aipqEnable = false; }, nullptr,
         [](T& t) -> EventCounter& { return t.recognition.releases; },
         [](T& t, int v) { t.controller.handleAIPQChanged(v != 0); }, {{0, false}, {1, true}}},
    Gate{"gameMode", 0, [](T& t) { t.info.gameMode = 1; }, nullptr,
         [](T& t) -> EventCounter& { return t.info.gameModeTests; },
         [](T& t, int v) { t.controller.handleVideoGameModeChanged(VideoGameMode(v)); },
         {{1, false}, {0, true}, {3, true}}},
    // Only a change away from the permitted type 1 wakes the worker, to park it again.
    Gate{"hdr", 30, [](T& t) { t.info.hdrType = 2; }, [](T& t) { hdr(t, 1); },
         [](T& t) -> EventCounter& { return t.info.hdrTests; }, hdr, {{1, false}, {2, true}}},
    Gate{"unencrypted", 60, [](T& t) { t.info.encrypted = true; }, [](T& t) { t.info.encrypted = false; },
         [](T& t) -> EventCounter& { return t.info.encryptedTests; },
         [](T& t, int v) { t.controller.handleStreamEncryptedChanged(v != 0); }, {{1, false}, {0, true}}},
    Gate{"memory", 10, [](T& t) { t.meminfo.setAvailable(10); },
         [](T& t) { t.meminfo.setAvailable(4000000); },
         [](T& t) -> EventCounter& { return t.recognition.loadStateReads; },
         [](T& t, int v) { t.controller.handleMemoryState(MemoryState(v)); },
         {{MemoryStateUnknown, false}, {MemoryStateLack, false}, {MemoryStateEnough, true},
          {MemoryStateLimit, true}}}};
// clang-format on

std::string gateName(const ::testing::TestParamInfo<Gate>& p) {
    return p.param.name;
}
INSTANTIATE_TEST_SUITE_P(Gates, GateTest, ::testing::ValuesIn(kGates), gateName);
INSTANTIATE_TEST_SUITE_P(Gates, TimedGateTest, ::testing::ValuesIn(kGates + 2, std::end(kGates)), gateName);

// The controller's handler calls, in order, as "what: value"; only those of one kind if asked.
std::vector<std::string> controllerCalls(const LogCapture& log, const std::string& only = "") {
    static const std::regex call(
        "\\[AI Manager\\] ((aipqEnable|sourceType|encrtypted|playerState|videoInfoHDRType|videoGameMode): "
        "-?\\d+)\\.");
    std::vector<std::string> calls;
    std::smatch m;
    for (const std::string& line : log.lines()) {
        if (std::regex_search(line, m, call) && (only.empty() || m[2] == only)) {
            calls.push_back(m[1]);
        }
    }
    return calls;
}

class InfoManagerTest : public ::testing::Test {
protected:
    void SetUp() override { manager.setObserver(&controller); }

    LogCapture log;
    std::shared_ptr<FakeTv> tv = std::make_shared<FakeTv>();
    SystemInfoManager manager{tv};
    AIRecognition controller;
};

TEST_F(InfoManagerTest, RepeatedValuesNeverReachTheController) {
    for (int i = 0; i < 2; ++i) {
        manager.handleSourceTypeChanged(SourceType(4));
        manager.handlePlayerStateChanged(PlayerState(3));
        manager.handleVideoInfoHDRTypeChanged(VideoInfoHDRType(2));
        manager.handleVideoGameModeChanged(VideoGameMode(1));
        manager.handleStreamEncryptedChanged(STREAM_MODE_1, true);  // mode 1: any source but 1
    }
    EXPECT_EQ(controllerCalls(log),
              (std::vector<std::string>{"sourceType: 4", "playerState: 3", "videoInfoHDRType: 2",
                                        "videoGameMode: 1", "encrtypted: 1"}));
}

TEST_F(InfoManagerTest, AipqIsEnabledBySwitchAndAvailabilityTogetherAndOnlyChangesAreReported) {
    const struct {
        int mode;
        bool state, enabled;
        size_t reports;
    } steps[] = {{AIPQ_MODE_SWITCH, true, false, 0},   {AIPQ_MODE_AVAILABLE, true, true, 1},
                 {AIPQ_MODE_AVAILABLE, true, true, 1}, {1, false, true, 1},  // other modes change nothing
                 {AIPQ_MODE_SWITCH, false, false, 2},  {AIPQ_MODE_AVAILABLE, false, false, 2},
                 {AIPQ_MODE_SWITCH, true, false, 2}};
    for (const auto& s : steps) {
        manager.handleAIPQChanged(AIPQMode(s.mode), s.state);
        EXPECT_EQ(manager.getAIPQEnable(), s.enabled) << s.mode << " " << s.state;
        EXPECT_EQ(controllerCalls(log).size(), s.reports) << s.mode << " " << s.state;
    }
    EXPECT_EQ(controllerCalls(log), (std::vector<std::string>{"aipqEnable: 1", "aipqEnable: 0"}));
}

// Stream mode 2 reports for source 1, mode 1 for any other; a source change keeps the flag.
TEST_F(InfoManagerTest, EncryptionFollowsTheStreamModeOfTheCurrentSource) {
    const struct {
        int source, mode;
        bool encrypted, reported;
    } steps[] = {{4, 2, true, false},
                 {1, 1, true, false},
                 {1, 2, true, true},
                 {6, 1, true, false},
                 {6, 1, false, true}};
    size_t reports = 0;
    for (const auto& s : steps) {
        manager.handleSourceTypeChanged(SourceType(s.source));
        manager.handleStreamEncryptedChanged(StreamMode(s.mode), s.encrypted);
        reports += s.reported;
        EXPECT_EQ(controllerCalls(log, "encrtypted").size(), reports) << s.source << " " << s.mode;
    }
    // Asked of the TV: source 1 has its own query, 6 and 9 share one, others are never encrypted.
    for (int source1 : {0, 1}) {
        tv->encrypted1 = source1;
        tv->encrypted6Or9 = 1 - source1;
        for (int source = 0; source <= 10; ++source) {
            tv->source = source;
            manager.getSourceTypeForced();
            EXPECT_EQ(manager.getStreamEncryptedForced(), source1 ? source == 1 : source == 6 || source == 9)
                << source;
        }
    }
}

// Registered before anything is read, so a change during start-up is not lost; then the whole
// state is read and pushed in the gates' order, on every start (power state 8 starts it again).
TEST_F(InfoManagerTest, StartRegistersThenReadsThenPushesTheWholeStateEveryTime) {
    tv->source = 9;
    for (int round = 0; round < 2; ++round) {
        log.clear();
        manager.start();
        EXPECT_EQ(tv->trace(), "ASPEHGavsp6hgu");
        EXPECT_EQ(controllerCalls(log),
                  (std::vector<std::string>{"aipqEnable: 0", "sourceType: 9", "encrtypted: 0",
                                            "playerState: 0", "videoInfoHDRType: 0", "videoGameMode: 0"}));
    }
}

TEST_F(InfoManagerTest, PermittedSourcesPlayerStatesAndHdrTypes) {
    // From -1 to 10.
    const std::string sources = "001111110010", playerStates = "001100000000", hdrTypes = "001000000000";
    for (int v = -1; v <= 10; ++v) {
        manager.handleSourceTypeChanged(SourceType(v));
        manager.handlePlayerStateChanged(PlayerState(v));
        manager.handleVideoInfoHDRTypeChanged(VideoInfoHDRType(v));
        EXPECT_EQ(manager.enableSourceType(), sources[v + 1] == '1') << "source " << v;
        EXPECT_EQ(manager.enablePlayerState(), playerStates[v + 1] == '1') << "player state " << v;
        EXPECT_EQ(manager.enableVideoInfoHDRType(), hdrTypes[v + 1] == '1') << "HDR type " << v;
    }
}

TEST(SettingManagerTest, EverySceneHandsItsWholeRowInOneCall) {
    auto platform = std::make_shared<RecordingSetting>();
    SystemSettingManager manager(platform);
    for (int label = 0; label < 20; ++label) {
        EXPECT_TRUE(manager.setPQPredictLabelResult(svc::AiPQPredictLabel(label)));
        EXPECT_EQ(platform->rows().back(), sceneRow(label)) << "label " << label;
    }
    // Refused by the platform, or outside the table: false, and no further row.
    platform->status = -1;
    EXPECT_FALSE(manager.setPQPredictLabelResult(svc::Sky));
    platform->status = 0;
    EXPECT_FALSE(manager.setPQPredictLabelResult(svc::AiPQPredictLabel(20)));
    EXPECT_FALSE(manager.setPQPredictLabelResult(svc::AiPQPredictLabel(-1)));
    EXPECT_EQ(platform->rows().size(), 21u);
}

std::vector<int32_t> fields(const MemoryInfo& i) {
    return {i.total, i.free, i.available, i.buffers, i.cached, i.swapCached, i.swapFree};
}

// Each field takes the first line holding its key that parses; a line that does not is refused.
TEST(MemoryMonitorTest, ReadsEachFieldFromTheFirstLineThatParses) {
    const std::pair<const char*, std::vector<int32_t>> cases[] = {
        // total, free, available, buffers, cached, swapCached, swapFree
        {"MemTotal: 16337564 kB\nMemFree: 99999999999 kB\nMemFree: 1021240 kB\nMemAvailable: plenty kB\n"
         "MemAvailable: 9876543 kB\nBuffers: 413064 kB\nCached: abc kB\nSwapCached: 2052 kB\nSwapFree: 88 "
         "kB\n",
         {16337564, 1021240, 9876543, 413064, 2052, 2052, 88}},
        {"Cached: 8213448 kB\nSwapCached: 2052 kB\n", {-1, -1, -1, -1, 8213448, 2052, -1}}};
    FakeMemInfo meminfo;
    MemoryMonitor monitor(meminfo.path());
    for (const auto& c : cases) {
        meminfo.write(c.first);
        MemoryInfo info = {};
        EXPECT_TRUE(monitor.getMemoryInfo(info));
        EXPECT_EQ(fields(info), c.second) << c.first;
    }
    monitor.updateMemoryState();
    EXPECT_EQ(monitor.getMemoryState(), MemoryStateLack) << "no MemAvailable";
}

// One notice per 50 tests of the marker, so one per 5 s when it is tested every 100 ms; a slower
// poll gives fewer over the same span, a faster one more.
TEST(ProcessEntryTest, TheReadinessMarkerIsTestedEveryTenthOfASecond) {
    LogCapture log;
    host::setTimeScale(10.0);
    unlink("/var/run/BIZREADY2");
    const double begun = uptime();
    std::thread waiter(wait_for_bizready);
    log.waitFor("waiting 5s for service ready!", 60s, 3);
    std::ofstream("/var/run/BIZREADY2").close();
    waiter.join();
    const double fives = (uptime() - begun) / 5;
    host::setTimeScale(1.0);
    EXPECT_GE(log.count("waiting 5s for service ready!"), fives / 2);
    EXPECT_LE(log.count("waiting 5s for service ready!"), fives + 1);
}

TEST(ProcessEntryTest, NothingStartsInTheFirstThirtySecondsAfterBoot) {
    const std::pair<long, unsigned> cases[] = {{0, 30}, {12, 18}, {29, 1}, {30, 0}, {31, 0}, {100000, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(uptimeFloorWaitSeconds(c.first), c.second) << c.first;
    }
}

}  // namespace
