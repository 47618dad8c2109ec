#ifndef TESTS_AI_MANAGER_CONTROLLER_FAKES_H
#define TESTS_AI_MANAGER_CONTROLLER_FAKES_H

// Thread-safe hand-written doubles for the controller's collaborators: the worker and the
// notification threads call them concurrently, which gmock expectations are not made for.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ai_recognition.h"
#include "aipq_display.h"
#include "host_platform.h"
#include "log_capture.h"
#include "mem_monitor.h"
#include "system_info_manager.h"
#include "system_setting_interface.h"
#include "system_setting_manager.h"

namespace svc = telvo_ai_service;

struct AIRecognitionTestPeer {
    static int32_t loopInteval(AIRecognition& r) { return r.m_loopInteval; }
    static void setLoopInteval(AIRecognition& r, int32_t v) { r.m_loopInteval = v; }
    static unsigned char* backupPicture(AIRecognition& r) { return r.m_pBackupPicture; }
    // The worker tests the HDR gate and waits under this mutex: once the test holds it after a
    // test of the gate, the worker is inside the wait.
    static void untilInTheHdrWait(AIRecognition& r) {
        pthread_mutex_lock(&r.m_hdrTypeMutex);
        pthread_mutex_unlock(&r.m_hdrTypeMutex);
    }
    // A display that was never initialised draws nothing and needs no DirectFB.
    static void showInertOverlay(AIRecognition& r) {
        r.m_showDebugWindow = true;
        r.m_pDebugWindow = std::make_shared<korvane::aipq::AIPQDisplay>();
    }
};

struct EventCounter {
    std::atomic<int> count{0};
    void bump() { ++count; }
    int value() const { return count; }
    bool waitAtLeast(int n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (count < n && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return count >= n;
    }
};

// The TV's answers to the info manager's queries, set by the test; it never notifies. Calls are
// traced in order: registrations in capitals, queries in small letters.
struct FakeTv : SystemInfoInterface {
    std::atomic<int> source{0}, encrypted1{0}, encrypted6Or9{0};
    std::string trace() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_trace, "");
    }
    void setAIPQChangedCallback(AIPQChangedCallback, void*) override { note('A'); }
    void setSourceTypeChangedCallback(SourceTypeChangedCallback, void*) override { note('S'); }
    void setPlayerStateChangedCallback(PlayerStateChangedCallback, void*) override { note('P'); }
    void setStreamEncryptedChangedCallback(StreamEncryptedChangedCallback, void*) override { note('E'); }
    void setVideoInfoHDRTypeChangedCallback(VideoInfoHDRTypeChangedCallback, void*) override { note('H'); }
    void setVideoGameModeChangedCallback(VideoGameModeChangedCallback, void*) override { note('G'); }
    int setAIPQSwitchState(bool) override { return 0; }
    bool getAIPQSwitchState() override { return note('a', false); }
    bool getAIPQAvailable() override { return note('v', false); }
    SourceType getSourceType() override { return note('s', SourceType(source.load())); }
    PlayerState getPlayerState() override { return note('p', PLAYER_STATE_STOPPED); }
    bool getStreamEncryptedSource6Or9() override { return note('6', encrypted6Or9 != 0); }
    bool getStreamEncryptedSource1() override { return note('1', encrypted1 != 0); }
    VideoInfoHDRType getVideoInfoHDRType() override { return note('h', VIDEO_INFO_HDR_TYPE_0); }
    VideoGameMode getVideoGameMode() override { return note('g', VIDEO_GAME_MODE_OFF); }
    bool getAIPQSupported() override { return note('u', false); }

private:
    template <typename V = int>
    V note(char c, V v = V()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_trace += c;
        return v;
    }
    std::mutex m_mutex;
    std::string m_trace;
};

// What the controller reads of the TV state, set by the test. The gates' reads count as tests of
// their gate; a disabled AIPQ read counts as a test of the AIPQ gate.
class FakeSystemInfoManager : public SystemInfoManager {
public:
    FakeSystemInfoManager() : SystemInfoManager(std::make_shared<FakeTv>()) {}
    std::atomic<bool> aipqEnable{true}, encrypted{false};
    std::atomic<int> gameMode{0}, hdrType{1}, playerState{2}, sourceType{2};
    EventCounter aipqOffReads, gameModeTests, hdrTests, encryptedTests, starts;

    // Not subscribed to the TV: the test sets the state.
    void start() override { starts.bump(); }
    void stop() override {}
    bool getAIPQEnable() override { return aipqEnable ? true : counted(aipqOffReads, false); }
    bool getStreamEncryptedForced() override { return counted(encryptedTests, encrypted.load()); }
    VideoInfoHDRType getVideoInfoHDRTypeForced() override {
        return counted(hdrTests, VideoInfoHDRType(hdrType.load()));
    }
    VideoGameMode getVideoGameModeForced() override {
        return counted(gameModeTests, VideoGameMode(gameMode.load()));
    }
    bool enablePlayerState() override { return playerState == 1 || playerState == 2; }
    bool enableSourceType() override { return (sourceType >= 1 && sourceType <= 6) || sourceType == 9; }
    bool enableVideoInfoHDRType() override { return hdrType == 1; }

private:
    template <typename T>
    static T counted(EventCounter& c, T v) {
        c.bump();
        return v;
    }
};

// Answers from a queue, then Sky, reporting the last label that succeeded as the previous one. The
// trace records requests (R), environment reloads (E) and model loads (M) in order.
class FakeRecognitionManager : public RecognitionManagerBase {
public:
    EventCounter recognitions, releases, loadStateReads;
    std::atomic<bool> modelLoaded{false};
    std::atomic<unsigned> busySeconds{0};  // each recognition takes this long on the platform's clock

    void queue(int result, svc::AiPQPredictLabel label) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answers.push_back({result, label});
    }
    std::string trace() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_trace;
    }
    bool getModelLoadState() override {
        loadStateReads.bump();
        return modelLoaded;
    }
    int loadModel() override { return note('M'); }
    int loadAiServiceEnv() override { return note('E'); }
    int recognitionPicture(korvane::ai::PictureData*, svc::AiPQPredictLabel& current,
                           svc::AiPQPredictLabel& previous, std::vector<svc::TelvoAiPQPredict>*) override {
        const double begun = uptime();
        osalSleep(busySeconds);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_spans.push_back({begun, uptime()});
        std::pair<int, svc::AiPQPredictLabel> a{0, svc::Sky};
        if (!m_answers.empty()) {
            a = m_answers.front();
            m_answers.pop_front();
        }
        m_trace += 'R';
        previous = m_lastLabel;
        current = a.second;
        if (a.first == 0) {
            m_lastLabel = a.second;
        }
        recognitions.bump();
        return a.first;
    }
    int releaseModel() override {
        releases.bump();
        return 0;
    }
    int isValidPicture(korvane::ai::PictureData*) override { return 0; }
    int stopAiService() override { return 0; }
    svc::AiServiceModelConfig& config() { return m_modelConfig; }
    svc::AiPQPredictLabel& lastLabel() { return m_lastLabel; }
    // When each recognition began and ended, in platform seconds.
    std::vector<std::pair<double, double>> spans() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_spans;
    }
    static double uptime() {
        OsalTime t;
        osalGetUptime(&t);
        return static_cast<double>(t.seconds) + t.microseconds / 1e6;
    }

private:
    int note(char c) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_trace += c;
        return 0;
    }
    std::mutex m_mutex;
    std::deque<std::pair<int, svc::AiPQPredictLabel>> m_answers;
    std::string m_trace;
    std::vector<std::pair<double, double>> m_spans;
};

class FakeCapture : public PictureCapture {
public:
    std::vector<unsigned char> pixels = std::vector<unsigned char>(224 * 224 * 3);
    bool start() override { return true; }
    bool stop() override { return true; }
    bool getPicture(bool, korvane::ai::PictureData* picture) override {
        *picture = {};
        picture->buffer = pixels.data();
        picture->width = picture->height = 224;
        picture->colorMode = korvane::ai::COLOR_MODE_RGB888;
        return true;
    }
};

// The TV's picture settings: offset rows are recorded, the rest is never called.
class RecordingSetting : public SystemSettingInterface {
public:
    std::atomic<int> status{0};
    std::vector<std::vector<int>> rows() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_rows;
    }
    int setVideoPQParameters(std::vector<int>& offsets) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_rows.push_back(offsets);
        return status;
    }
    int setVideoBrightness(int) override { return -1; }
    int setVideoContrast(int) override { return -1; }
    int setVideoSaturation(int) override { return -1; }
    int setVideoSharpness(int) override { return -1; }
    int setVideoMEMC(int) override { return -1; }
    int setVideoNR(int) override { return -1; }
    int setVideoColorTunerFamily(std::vector<int>&) override { return -1; }
    int getVideoBrightness() override { return 0; }
    int getVideoContrast() override { return 0; }
    int getVideoSaturation() override { return 0; }
    int getVideoSharpness() override { return 0; }
    int getVideoMEMC() override { return 0; }
    int getVideoNR() override { return 0; }
    int getVideoColorTunerFamily(std::vector<int>&) override { return -1; }

private:
    std::mutex m_mutex;
    std::vector<std::vector<int>> m_rows;
};

// A memory summary the test writes, in the sandbox's own /var/run; replaced whole, so no reader
// sees half a file.
class FakeMemInfo {
public:
    FakeMemInfo() { setAvailable(4000000); }
    ~FakeMemInfo() { std::remove(m_path.c_str()); }
    void write(const std::string& text) {
        std::ofstream(m_path + ".new") << text;
        std::rename((m_path + ".new").c_str(), m_path.c_str());
    }
    void setAvailable(int kb) {
        write("MemTotal: 16000000 kB\nMemAvailable: " + std::to_string(kb) + " kB\n");
    }
    const char* path() const { return m_path.c_str(); }

private:
    const std::string m_path = "/var/run/aipq_test_meminfo";
};

// The controller wired to the doubles above, on a fast clock. Members are destroyed in reverse
// order: the controller first.
class ControllerTestBase : public ::testing::Test {
public:
    void SetUp() override { host::setTimeScale(1000.0); }
    void TearDown() override {
        controller.stop();
        host::setTimeScale(1.0);
    }
    void wire() { controller.init(&capture, &memory, &info, &setting, &recognition, nullptr); }

    LogCapture log;
    FakeMemInfo meminfo;
    MemoryMonitor memory{meminfo.path()};
    FakeSystemInfoManager info;
    FakeCapture capture;
    std::shared_ptr<RecordingSetting> platform = std::make_shared<RecordingSetting>();
    SystemSettingManager setting{platform};
    FakeRecognitionManager recognition;
    AIRecognition controller;
};

#endif
