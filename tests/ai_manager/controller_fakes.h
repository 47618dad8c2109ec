#ifndef TESTS_AI_MANAGER_CONTROLLER_FAKES_H
#define TESTS_AI_MANAGER_CONTROLLER_FAKES_H

// Thread-safe hand-written doubles for the controller's collaborators: the worker and the
// notification threads call them concurrently, which gmock expectations are not made for.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <fstream>
#include <unistd.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ai_recognition.h"
#include "host_platform.h"
#include "log_capture.h"
#include "mem_monitor.h"
#include "picture_capture.h"
#include "recognition_manager_base.h"
#include "system_info_manager.h"
#include "system_setting_interface.h"
#include "system_setting_manager.h"

struct AIRecognitionTestPeer {
    static bool loopRunning(AIRecognition& r) { return r.m_loopAIRecognition; }
    static int32_t loopInteval(AIRecognition& r) { return r.m_loopInteval; }
    static void setLoopInteval(AIRecognition& r, int32_t v) { r.m_loopInteval = v; }
    static void setShowDebugWindow(AIRecognition& r, bool v) { r.m_showDebugWindow = v; }
    static unsigned char* backupPicture(AIRecognition& r) { return r.m_pBackupPicture; }
};

// Counts events and lets a test wait for a count to be reached.
class EventCounter {
public:
    void bump() {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_cond.notify_all();
    }
    int value() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }
    bool waitAtLeast(int n, std::chrono::milliseconds timeout) const {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, timeout, [&] { return m_count >= n; });
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cond;
    int m_count = 0;
};

class FakeSystemInfoManager : public SystemInfoManagerInterface {
public:
    std::atomic<bool> aipqEnable{true};
    std::atomic<int> gameMode{0};
    std::atomic<int> hdrType{1};
    std::atomic<bool> encrypted{false};
    std::atomic<int> playerState{2};
    std::atomic<int> sourceType{2};
    std::atomic<bool> supported{true};
    EventCounter startCalls;
    EventCounter stopCalls;
    EventCounter gameModeTests;
    EventCounter hdrTests;
    EventCounter encryptedTests;
    // Counts reads that found AIPQ disabled: the worker's AIPQ gate test (and the reset that
    // follows it) happens with the gate's mutex held.
    EventCounter aipqOffReads;

    void setObserver(AIRecognition*) override {}
    void start() override { startCalls.bump(); }
    void stop() override { stopCalls.bump(); }
    void handleAIPQChanged(AIPQMode, bool) override {}
    void handleSourceTypeChanged(SourceType) override {}
    void handlePlayerStateChanged(PlayerState) override {}
    void handleStreamEncryptedChanged(StreamMode, bool) override {}
    void handleVideoInfoHDRTypeChanged(VideoInfoHDRType) override {}
    void handleVideoGameModeChanged(VideoGameMode) override {}
    bool getAIPQEnable() override {
        bool v = aipqEnable;
        if (!v) {
            aipqOffReads.bump();
        }
        return v;
    }
    PlayerState getPlayerState() override { return static_cast<PlayerState>(playerState.load()); }
    SourceType getSourceType() override { return static_cast<SourceType>(sourceType.load()); }
    bool getStreamEncrypted() override { return encrypted; }
    VideoInfoHDRType getVideoInfoHDRType() override { return static_cast<VideoInfoHDRType>(hdrType.load()); }
    VideoGameMode getVideoGameMode() override { return static_cast<VideoGameMode>(gameMode.load()); }
    bool getAIPQEnableForced() override { return aipqEnable; }
    PlayerState getPlayerStateForced() override { return getPlayerState(); }
    SourceType getSourceTypeForced() override { return getSourceType(); }
    bool getStreamEncryptedForced() override {
        bool v = encrypted;
        encryptedTests.bump();
        return v;
    }
    VideoInfoHDRType getVideoInfoHDRTypeForced() override {
        auto v = getVideoInfoHDRType();
        hdrTests.bump();
        return v;
    }
    VideoGameMode getVideoGameModeForced() override {
        auto v = getVideoGameMode();
        gameModeTests.bump();
        return v;
    }
    bool getAIPQSupported() override { return supported; }
    bool getAIPQSupportedForced() override { return supported; }
    bool enablePlayerState() override { return static_cast<unsigned>(playerState.load()) - 1u <= 1u; }
    bool enableSourceType() override {
        int s = sourceType;
        return (s >= 1 && s <= 6) || s == 9;
    }
    bool enableVideoInfoHDRType() override { return hdrType == 1; }
};

class FakeRecognitionManager : public RecognitionManagerBase {
public:
    struct Answer {
        int result;
        telvo_ai_service::AiPQPredictLabel label;
    };

    EventCounter recognitions;
    EventCounter resets;
    std::atomic<int> releaseModels{0};
    std::atomic<int> envReloads{0};
    std::atomic<int> modelLoads{0};
    std::atomic<int> stopServiceCalls{0};
    std::atomic<bool> modelLoaded{false};

    void queue(int result, telvo_ai_service::AiPQPredictLabel label) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answers.push_back({result, label});
    }
    void setDefault(int result, telvo_ai_service::AiPQPredictLabel label) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_default = {result, label};
    }

    bool getModelLoadState() override { return modelLoaded; }
    int loadModel() override {
        ++modelLoads;
        return 0;
    }
    int recognitionPicture(korvane::ai::PictureData*, telvo_ai_service::AiPQPredictLabel& current,
                           telvo_ai_service::AiPQPredictLabel& previous,
                           std::vector<telvo_ai_service::TelvoAiPQPredict>* predictions) override {
        Answer a;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_answers.empty()) {
                a = m_default;
            } else {
                a = m_answers.front();
                m_answers.pop_front();
            }
            if (a.result == 0) {
                previous = m_last;
                current = a.label;
                m_last = a.label;
                if (predictions != nullptr) {
                    predictions->push_back({a.label, 0.9f});
                }
            }
        }
        recognitions.bump();
        return a.result;
    }
    int releaseModel() override {
        ++releaseModels;
        return 0;
    }
    int isValidPicture(korvane::ai::PictureData*) override { return 0; }
    int stopAiService() override {
        ++stopServiceCalls;
        return 0;
    }
    void reset() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_last = telvo_ai_service::Invalid;
        }
        resets.bump();
    }
    int loadAiServiceEnv() override {
        ++envReloads;
        return 0;
    }

private:
    std::mutex m_mutex;
    std::deque<Answer> m_answers;
    Answer m_default{0, telvo_ai_service::Sky};
    telvo_ai_service::AiPQPredictLabel m_last = telvo_ai_service::Invalid;
};

class FakeCapture : public PictureCapture {
public:
    std::atomic<bool> ok{true};
    EventCounter captures;
    bool start() override { return true; }
    bool stop() override { return true; }
    bool getPicture(bool, korvane::ai::PictureData* picture) override {
        picture->buffer = m_pixels.data();
        picture->width = 224;
        picture->height = 224;
        picture->colorMode = korvane::ai::COLOR_MODE_RGB888;
        captures.bump();
        return ok;
    }

private:
    std::vector<unsigned char> m_pixels = std::vector<unsigned char>(224 * 224 * 3, 0x40);
};

class RecordingSetting : public SystemSettingInterface {
public:
    EventCounter rows;
    std::vector<std::vector<int>> history() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_rows;
    }
    int setVideoBrightness(int) override { return 0; }
    int setVideoContrast(int) override { return 0; }
    int setVideoSaturation(int) override { return 0; }
    int setVideoSharpness(int) override { return 0; }
    int setVideoMEMC(int) override { return 0; }
    int setVideoNR(int) override { return 0; }
    int setVideoColorTunerFamily(std::vector<int>&) override { return 0; }
    int setVideoPQParameters(std::vector<int>& offsets) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_rows.push_back(offsets);
        }
        rows.bump();
        return 0;
    }
    int getVideoBrightness() override { return 0; }
    int getVideoContrast() override { return 0; }
    int getVideoSaturation() override { return 0; }
    int getVideoSharpness() override { return 0; }
    int getVideoMEMC() override { return 0; }
    int getVideoNR() override { return 0; }
    int getVideoColorTunerFamily(std::vector<int>&) override { return 0; }

private:
    std::mutex m_mutex;
    std::vector<std::vector<int>> m_rows;
};

// A meminfo file whose MemAvailable the test controls.
class FakeMemInfo {
public:
    FakeMemInfo() {
        char tmpl[] = "/tmp/aipq_meminfo_XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) {
            close(fd);
        }
        m_path = tmpl;
        setAvailable(4000000);
    }
    ~FakeMemInfo() { std::remove(m_path.c_str()); }
    void setAvailable(int kb) {
        std::string tmp = m_path + ".new";
        {
            std::ofstream out(tmp);
            out << "MemTotal:       16000000 kB\nMemFree:         8000000 kB\nMemAvailable:   " << kb
                << " kB\nBuffers:          100000 kB\nCached:          2000000 kB\nSwapCached:            0 "
                   "kB\n"
                   "SwapTotal:             0 kB\nSwapFree:              0 kB\n";
        }
        std::rename(tmp.c_str(), m_path.c_str());
    }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// The controller wired to the doubles above, with a fast clock; the fixture base of the
// controller tests. Members are destroyed in reverse order: the controller first.
class ControllerTestBase : public ::testing::Test {
protected:
    void SetUp() override { host::setTimeScale(1000.0); }
    void TearDown() override {
        controller.stop();
        host::setTimeScale(1.0);
    }
    void wire() { controller.init(&capture, &memory, &info, &setting, &recognition, nullptr); }

    LogCapture log;
    FakeMemInfo meminfo;
    MemoryMonitor memory{meminfo.path().c_str()};
    FakeSystemInfoManager info;
    FakeCapture capture;
    std::shared_ptr<RecordingSetting> settingClient = std::make_shared<RecordingSetting>();
    SystemSettingManager setting{settingClient};
    FakeRecognitionManager recognition;
    AIRecognition controller;
};

#endif
