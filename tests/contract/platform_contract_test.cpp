// What the daemon relies on of a platform layer, through platform_adaptation/include only; the
// port's driver plays the TV (contract_driver.h). Run in this order, the exit request comes last.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ai_service_protocol.h"
#include "contract_driver.h"
#include "dbg_log.h"
#include "frame_process.h"
#include "osal.h"
#include "picture_capture.h"
#include "sandbox_reexec.h"
#include "system_info.h"
#include "system_setting.h"
#include "system_state.h"

namespace {

using contract::TvKey;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace proto = ai_service_protocol;

std::mutex g_mutex;
std::condition_variable g_cond;
std::vector<std::string> g_events;

void record(const char* what, int a, int b = -1) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_events.push_back(std::string(what) + " " + std::to_string(a) + (b < 0 ? "" : " " + std::to_string(b)));
    g_cond.notify_all();
}

// Sets the TV state and waits for `event` among those that follow; "" waits for none.
bool change(TvKey key, int value, const std::string& event, std::chrono::milliseconds timeout = 5s) {
    std::unique_lock<std::mutex> lock(g_mutex);
    const size_t from = g_events.size();
    lock.unlock();
    const bool set = contract::driver().setTvState(key, value);
    EXPECT_TRUE(set) << "the port's driver cannot set the TV state";
    lock.lock();
    return set && (event.empty() || g_cond.wait_for(lock, timeout, [&] {
               return std::find(g_events.begin() + from, g_events.end(), event) != g_events.end();
           }));
}

TEST(TvContract, EachChangeReachesItsCallbackAndTheGetterAnswersIt) {
    SystemInfo info;
    SystemState state("contract");
    info.setAIPQChangedCallback([](AIPQMode m, bool on, void*) { record("aipq", m, on); }, nullptr);
    info.setSourceTypeChangedCallback([](SourceType t, void*) { record("source", t); }, nullptr);
    info.setPlayerStateChangedCallback([](PlayerState s, void*) { record("player", s); }, nullptr);
    info.setStreamEncryptedChangedCallback([](StreamMode m, bool e, void*) { record("enc", m, e); }, nullptr);
    info.setVideoInfoHDRTypeChangedCallback([](VideoInfoHDRType t, void*) { record("hdr", t); }, nullptr);
    info.setVideoGameModeChangedCallback([](VideoGameMode m, void*) { record("game", m); }, nullptr);
    state.setTVPowerStateCallback([](TVPowerState s, void*) { record("power", s); }, nullptr);
    const std::tuple<TvKey, int, const char*, std::function<int()>> cases[] = {
        {TvKey::AipqAvailable, 1, "aipq 3 1", [&] { return info.getAIPQAvailable(); }},
        {TvKey::AipqSwitch, 1, "aipq 2 1", [&] { return info.getAIPQSwitchState(); }},
        {TvKey::AipqSwitch, 0, "aipq 2 0", [&] { return info.getAIPQSwitchState(); }},
        {TvKey::SourceType, 9, "source 9", [&] { return info.getSourceType(); }},
        {TvKey::PlayerState, 2, "player 2", [&] { return info.getPlayerState(); }},
        {TvKey::EncryptedSource1, 1, "enc 2 1", [&] { return info.getStreamEncryptedSource1(); }},
        {TvKey::EncryptedSource6Or9, 1, "enc 1 1", [&] { return info.getStreamEncryptedSource6Or9(); }},
        {TvKey::EncryptedSource1, 0, "enc 2 0", [&] { return info.getStreamEncryptedSource1(); }},
        {TvKey::HdrType, 2, "hdr 2", [&] { return info.getVideoInfoHDRType(); }},
        {TvKey::GameMode, 1, "game 1", [&] { return info.getVideoGameMode(); }},
        {TvKey::PowerState, 8, "power 8", nullptr},
        {TvKey::AipqSupported, 1, "", [&] { return info.getAIPQSupported(); }},  // read, never notified
    };
    for (const auto& [key, value, event, read] : cases) {
        EXPECT_TRUE(change(key, value, event)) << "not notified: " << event;
        EXPECT_TRUE(!read || read() == value) << "the getter answers otherwise: " << event;
    }
}

// The daemon clears its callbacks just before it tears down, and replaces them from inside one.
TEST(TvContract, AReplacedCallbackHasReturnedAndNeverRunsAgainAndMayReplaceItself) {
    SystemInfo info;
    info.setPlayerStateChangedCallback(
        [](PlayerState s, void*) {
            record("slow", s);
            std::this_thread::sleep_for(300ms);
            record("slow returned", s);
        },
        nullptr);
    ASSERT_TRUE(change(TvKey::PlayerState, 1, "slow 1"));
    info.setPlayerStateChangedCallback([](PlayerState s, void*) { record("player", s); }, nullptr);
    record("replaced", 0);
    EXPECT_TRUE(change(TvKey::PlayerState, 2, "player 2"));
    info.setPlayerStateChangedCallback(nullptr, nullptr);
    info.setVideoGameModeChangedCallback(
        [](VideoGameMode m, void* p) {
            static_cast<SystemInfo*>(p)->setVideoGameModeChangedCallback(
                [](VideoGameMode m, void*) { record("second", m); }, nullptr);
            record("first", m);
        },
        &info);
    EXPECT_TRUE(change(TvKey::GameMode, 1, "first 1")) << "registering from inside the callback hangs";
    EXPECT_TRUE(change(TvKey::GameMode, 0, "second 0"));
    EXPECT_FALSE(change(TvKey::PlayerState, 1, "player 1", 1s)) << "a cleared callback ran";
    std::lock_guard<std::mutex> lock(g_mutex);
    auto at = [](const char* e) { return std::find(g_events.begin(), g_events.end(), e) - g_events.begin(); };
    EXPECT_LT(at("slow returned 1"), at("replaced 0")) << "the replaced callback was still running";
    EXPECT_EQ(at("slow 2"), static_cast<long>(g_events.size())) << "the replaced callback ran again";
}

TEST(PqSettingContract, AWholeRowIsAppliedInOneCallAndAShortOneRefused) {
    SystemSetting setting;
    std::vector<int> row(34, -7), shortRow(33, 1), applied;
    row[0] = 12, row[33] = -1;
    EXPECT_EQ(setting.setVideoPQParameters(row), 0);
    EXPECT_NE(setting.setVideoPQParameters(shortRow), 0);
    ASSERT_TRUE(contract::driver().appliedPqRow(&applied)) << "the port's driver cannot read the row";
    EXPECT_EQ(applied, row);
}

// The daemon sends the payload to the AI service and keeps the record for dumps and the overlay.
TEST(CaptureContract, PictureIs224By224With3BytesAPixelAndTheSameInThePayload) {
    auto* segment =
        static_cast<uint8_t*>(shmat(shmget(proto::kShmKey, proto::kShmSize, proto::kShmFlags), 0, 0));
    ASSERT_NE(segment, reinterpret_cast<uint8_t*>(-1));
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    for (int i = 0; i < 2; ++i) {
        std::fill(segment, segment + proto::kShmSize, 0x5A);
        korvane::ai::PictureData picture{};
        ASSERT_TRUE(capture.getPicture(true, &picture));
        ASSERT_EQ(std::make_pair(picture.width, picture.height), std::make_pair(224, 224));
        const bool bgr = picture.colorMode == korvane::ai::COLOR_MODE_BGR888;
        ASSERT_TRUE(bgr || picture.colorMode == korvane::ai::COLOR_MODE_RGB888) << picture.colorMode;
        size_t differ = 0;  // the payload is red-green-blue
        for (size_t at = 0; at < proto::kPictureBytes; ++at) {
            differ +=
                picture.buffer[bgr ? at / 3 * 3 + 2 - at % 3 : at] != segment[proto::kPayloadOffset + at];
        }
        EXPECT_EQ(differ, 0u) << "capture " << i;
        EXPECT_EQ(std::vector<uint8_t>(segment, segment + 24), std::vector<uint8_t>(24, 0x5A)) << "header";
    }
}

TEST(OsalContract, UptimeComparesAndSubtractsInMicrosecondsAndAdvances) {
    const OsalTime cases[][4] = {// a, b, {a compared with b, 0}, a - b
                                 {{5, 0}, {4, 999999}, {1, 0}, {0, 1}},
                                 {{5, 7}, {5, 8}, {-1, 0}, {-1, 999999}}};
    for (const auto& c : cases) {
        OsalTime d = c[0];
        osalSubtractTime(&d, &c[1]);
        EXPECT_EQ(osalCompareTime(&c[0], &c[1]), c[2].seconds) << c[0].seconds << " " << c[1].seconds;
        EXPECT_EQ(std::make_pair(d.seconds, d.microseconds), std::make_pair(c[3].seconds, c[3].microseconds));
    }
    OsalTime start, now;
    const auto from = Clock::now();
    osalGetUptime(&start);
    std::this_thread::sleep_for(200ms);
    osalGetUptime(&now);
    const int64_t real = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - from).count();
    osalSubtractTime(&now, &start);
    const int64_t us = now.seconds * 1000000 + now.microseconds;
    EXPECT_TRUE(us > real - 50000 && us < real + 50000 && now.microseconds < 1000000)
        << us << " us, in " << real << " us";
}

// The deadline is absolute, on CLOCK_REALTIME, as pthread_cond_timedwait takes it; a signal ends it.
TEST(OsalContract, TimedWaitEndsAtItsDeadlineOrOnTheSignal) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool signalled = false;
    std::thread signaller([&] {
        std::this_thread::sleep_for(2500ms);  // well into the third wait
        pthread_mutex_lock(&mutex);
        signalled = true;
        pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
    });
    // deadline in ms from now, the result, the least time it takes in ms
    for (const auto& [in, result, least] :
         {std::make_tuple(-1000, ETIMEDOUT, 0), {300, ETIMEDOUT, 250}, {30000, 0, 0}}) {
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        const int64_t ns = deadline.tv_sec * 1000000000LL + deadline.tv_nsec + in * 1000000LL;
        deadline = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        const auto start = Clock::now();
        int rc = 0;
        pthread_mutex_lock(&mutex);
        while (rc == 0 && !signalled) {
            rc = osalCondTimedWait(&cond, &mutex, &deadline);
        }
        pthread_mutex_unlock(&mutex);
        EXPECT_EQ(rc, result) << in;
        EXPECT_TRUE(Clock::now() - start >= std::chrono::milliseconds(least) && Clock::now() - start < 10s)
            << in;
    }
    signaller.join();
}

// One call is one whole line, also when longer than any buffer on the stack.
TEST(LogContract, AnErrorLineArrivesWhole) {
    std::vector<std::string> lines;
    ASSERT_TRUE(contract::driver().captureLog([&](const std::string& line) { lines.push_back(line); }))
        << "the port's driver cannot capture the log";
    const std::string text(5000, 'x');
    DBG_LOG(DBG_LEVEL_ERROR, "[Contract]", "%d %s\n", 42, text.c_str());
    contract::driver().captureLog(nullptr);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("platform_contract_test.cpp:"), std::string::npos) << lines[0].substr(0, 100);
    EXPECT_EQ(lines[0].substr(lines[0].find("(): [Contract] ")), "(): [Contract] 42 " + text + "\n");
}

// Made while the daemon waits, the request ends the wait and run(), and stays made.
TEST(ExitContract, ARequestMadeWhileWaitingEndsTheWaitAndRunAndStays) {
    const auto start = Clock::now();
    EXPECT_FALSE(osalWaitExitRequest(200));
    EXPECT_GE(Clock::now() - start, 150ms);
    std::thread request([] {
        std::this_thread::sleep_for(200ms);
        EXPECT_TRUE(contract::driver().requestExit()) << "the port's driver cannot request the exit";
    });
    EXPECT_TRUE(osalWaitExitRequest(10000));
    EXPECT_LT(Clock::now() - start, 5s);
    request.join();
    EXPECT_TRUE(osalWaitExitRequest(0) && frame::Process::getInstance().run() == 0);
}

}  // namespace

// Started as the daemon starts.
int main(int argc, char** argv) {
    reexecInSandbox();
    osalInitOnce();
    dbgInit();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
