// One recognition cycle driven directly on the test thread: retries after the service's "not
// initialised" and "no model" answers, applying a scene only when it changed and AIPQ is still on,
// and the debug text the overlay receives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ai_recognition.h"
#include "aipq_display.h"
#include "log_capture.h"
#include "mock_system_setting.h"
#include "picture_capture.h"
#include "recognition_manager_base.h"
#include "system_info_manager.h"
#include "system_setting_interface.h"
#include "system_setting_manager.h"

struct AIRecognitionTestPeer {
    static void setShowDebugWindow(AIRecognition& r, bool v) { r.m_showDebugWindow = v; }
    // A display that was never initialised draws nothing and needs no DirectFB, so the controller
    // can run its overlay path in a unit test.
    static void installInertDisplay(AIRecognition& r) {
        r.m_pDebugWindow = std::make_shared<korvane::aipq::AIPQDisplay>();
    }
    static const unsigned char* backupPicture(AIRecognition& r) { return r.m_pBackupPicture; }
};

namespace {

using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::TelvoAiPQPredict;
using ::testing::_;
using ::testing::DoAll;
using ::testing::ElementsAreArray;
using ::testing::Eq;
using ::testing::Field;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Pointee;
using ::testing::Return;
using ::testing::SetArgReferee;
using ::testing::StrictMock;
namespace svc = telvo_ai_service;

class MockRecognitionManager : public RecognitionManagerBase {
public:
    MOCK_METHOD(int, loadModel, (), (override));
    MOCK_METHOD(int, recognitionPicture,
                (korvane::ai::PictureData*, AiPQPredictLabel&, AiPQPredictLabel&,
                 std::vector<TelvoAiPQPredict>*),
                (override));
    MOCK_METHOD(int, releaseModel, (), (override));
    MOCK_METHOD(int, isValidPicture, (korvane::ai::PictureData*), (override));
    MOCK_METHOD(int, stopAiService, (), (override));
    MOCK_METHOD(int, loadAiServiceEnv, (), (override));
};

class MockSystemInfoManager : public SystemInfoManagerInterface {
public:
    MOCK_METHOD(void, setObserver, (AIRecognition*), (override));
    MOCK_METHOD(void, start, (), (override));
    MOCK_METHOD(void, stop, (), (override));
    MOCK_METHOD(void, handleAIPQChanged, (AIPQMode, bool), (override));
    MOCK_METHOD(void, handleSourceTypeChanged, (SourceType), (override));
    MOCK_METHOD(void, handlePlayerStateChanged, (PlayerState), (override));
    MOCK_METHOD(void, handleStreamEncryptedChanged, (StreamMode, bool), (override));
    MOCK_METHOD(void, handleVideoInfoHDRTypeChanged, (VideoInfoHDRType), (override));
    MOCK_METHOD(void, handleVideoGameModeChanged, (VideoGameMode), (override));
    MOCK_METHOD(bool, getAIPQEnable, (), (override));
    MOCK_METHOD(PlayerState, getPlayerState, (), (override));
    MOCK_METHOD(SourceType, getSourceType, (), (override));
    MOCK_METHOD(bool, getStreamEncrypted, (), (override));
    MOCK_METHOD(VideoInfoHDRType, getVideoInfoHDRType, (), (override));
    MOCK_METHOD(VideoGameMode, getVideoGameMode, (), (override));
    MOCK_METHOD(bool, getAIPQEnableForced, (), (override));
    MOCK_METHOD(PlayerState, getPlayerStateForced, (), (override));
    MOCK_METHOD(SourceType, getSourceTypeForced, (), (override));
    MOCK_METHOD(bool, getStreamEncryptedForced, (), (override));
    MOCK_METHOD(VideoInfoHDRType, getVideoInfoHDRTypeForced, (), (override));
    MOCK_METHOD(VideoGameMode, getVideoGameModeForced, (), (override));
    MOCK_METHOD(bool, getAIPQSupported, (), (override));
    MOCK_METHOD(bool, getAIPQSupportedForced, (), (override));
    MOCK_METHOD(bool, enablePlayerState, (), (override));
    MOCK_METHOD(bool, enableSourceType, (), (override));
    MOCK_METHOD(bool, enableVideoInfoHDRType, (), (override));
};

// Hands out a fixed 224 x 224 RGB frame whose pixels are (1, 2, 3).
class StubCapture : public PictureCapture {
public:
    bool ok = true;
    int captures = 0;
    bool start() override { return true; }
    bool stop() override { return true; }
    bool getPicture(bool, korvane::ai::PictureData* picture) override {
        ++captures;
        picture->buffer = m_pixels.data();
        picture->width = 224;
        picture->height = 224;
        picture->colorMode = korvane::ai::COLOR_MODE_RGB888;
        return ok;
    }
    unsigned char* pixels() { return m_pixels.data(); }

private:
    std::vector<unsigned char> m_pixels = [] {
        std::vector<unsigned char> v(224 * 224 * 3);
        for (size_t i = 0; i < v.size(); ++i) {
            v[i] = static_cast<unsigned char>(i % 3 + 1);
        }
        return v;
    }();
};

// Answers recognitionPicture like the real client: result, and on success the two labels.
auto answer(int result, AiPQPredictLabel current = svc::Invalid, AiPQPredictLabel previous = svc::Invalid) {
    return DoAll(SetArgReferee<1>(current), SetArgReferee<2>(previous), Return(result));
}

std::vector<int> rowOf(AiPQPredictLabel label) {
    return std::vector<int>(s_PQSettingTable[label], s_PQSettingTable[label] + PQ_SETTING_PARAMETERS_COUNT);
}

class RecognitionCycleTest : public ::testing::Test {
protected:
    void SetUp() override {
        ON_CALL(info, getAIPQEnable()).WillByDefault(Return(true));
        controller.init(&capture, nullptr, &info, &setting, &recognition, nullptr);
        // Independent of whether this machine has the overlay marker file.
        AIRecognitionTestPeer::setShowDebugWindow(controller, false);
    }

    NiceMock<MockSystemInfoManager> info;
    StubCapture capture;
    std::shared_ptr<StrictMock<MockSystemSetting>> platform =
        std::make_shared<StrictMock<MockSystemSetting>>();
    SystemSettingManager setting{platform};
    NiceMock<MockRecognitionManager> recognition;
    AIRecognition controller;
};

TEST_F(RecognitionCycleTest, NotInitialisedThenNoModelReloadsEachOnceInOrder) {
    auto sameFrame = Pointee(Field(&korvane::ai::PictureData::buffer, Eq(capture.pixels())));
    {
        InSequence order;
        EXPECT_CALL(recognition, recognitionPicture(sameFrame, _, _, _)).WillOnce(answer(2));
        EXPECT_CALL(recognition, loadAiServiceEnv()).WillOnce(Return(0));
        EXPECT_CALL(recognition, recognitionPicture(sameFrame, _, _, _)).WillOnce(answer(3));
        EXPECT_CALL(recognition, loadModel()).WillOnce(Return(0));
        EXPECT_CALL(recognition, recognitionPicture(sameFrame, _, _, _)).WillOnce(answer(0, svc::Sky));
        EXPECT_CALL(*platform, setVideoPQParameters(ElementsAreArray(rowOf(svc::Sky)))).WillOnce(Return(0));
    }
    controller.recognitionProcess();
    EXPECT_EQ(capture.captures, 1) << "retries reuse the captured frame";
}

TEST_F(RecognitionCycleTest, EachReloadHappensAtMostOncePerCycle) {
    struct Case {
        std::vector<int> results;
        int attempts;
        int envReloads;
        int modelReloads;
    };
    const Case cases[] = {
        {{2, 2}, 2, 1, 0},    {{3, 3}, 2, 0, 1}, {{3, 2, 3}, 3, 1, 1},
        {{2, 3, 2}, 3, 1, 1}, {{1}, 1, 0, 0},    {{2, 1}, 2, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.results));
        size_t next = 0;
        int attempts = 0;
        EXPECT_CALL(recognition, recognitionPicture(_, _, _, _))
            .WillRepeatedly(Invoke([&](korvane::ai::PictureData*, AiPQPredictLabel&, AiPQPredictLabel&,
                                       std::vector<TelvoAiPQPredict>*) {
                ++attempts;
                return next < c.results.size() ? c.results[next++] : 0;
            }));
        EXPECT_CALL(recognition, loadAiServiceEnv()).Times(c.envReloads);
        EXPECT_CALL(recognition, loadModel()).Times(c.modelReloads);
        // No result here is a success, so the strict platform mock sees no call.
        controller.recognitionProcess();
        EXPECT_EQ(attempts, c.attempts);
        ::testing::Mock::VerifyAndClearExpectations(&recognition);
    }
}

TEST_F(RecognitionCycleTest, UnchangedSceneIsNotAppliedAgain) {
    {
        InSequence order;
        EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).WillOnce(answer(0, svc::Sky, svc::Invalid));
        EXPECT_CALL(*platform, setVideoPQParameters(ElementsAreArray(rowOf(svc::Sky)))).WillOnce(Return(0));
        EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).WillOnce(answer(0, svc::Sky, svc::Sky));
        EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).WillOnce(answer(0, svc::Food, svc::Sky));
        EXPECT_CALL(*platform, setVideoPQParameters(ElementsAreArray(rowOf(svc::Food)))).WillOnce(Return(0));
        // A failed request does not apply even when its labels would differ.
        EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).WillOnce(answer(1, svc::Dog, svc::Food));
    }
    for (int i = 0; i < 4; ++i) {
        controller.recognitionProcess();
    }
}

TEST_F(RecognitionCycleTest, AipqSwitchedOffDuringTheCycleAppliesNothing) {
    bool aipqOn = true;
    ON_CALL(info, getAIPQEnable()).WillByDefault([&] { return aipqOn; });
    AIRecognitionTestPeer::setShowDebugWindow(controller, true);
    AIRecognitionTestPeer::installInertDisplay(controller);
    EXPECT_CALL(recognition, recognitionPicture(_, _, _, _))
        .WillOnce(DoAll(Invoke([&](korvane::ai::PictureData*, AiPQPredictLabel&, AiPQPredictLabel&,
                                   std::vector<TelvoAiPQPredict>*) { aipqOn = false; }),
                        answer(0, svc::Tree)));
    LogCapture log;
    controller.recognitionProcess();  // strict platform mock: any apply fails the test
    EXPECT_FALSE(log.contains("debugInfo:")) << "the overlay is not refreshed with AIPQ off either";
}

// ---------------------------------------------------------------------------------------------
// Debug text

std::string debugText(const LogCapture& log) {
    const std::string head = "updateDebugInfo(): [AI Manager] debugInfo: ";
    std::string found;
    for (const auto& line : log.lines()) {
        auto pos = line.find(head);
        if (pos != std::string::npos) {
            found = line.substr(pos + head.size());
        }
    }
    return found;
}

TEST_F(RecognitionCycleTest, DebugTextCarriesLabelsPredictionsAndThreeOffsetsALine) {
    AIRecognitionTestPeer::setShowDebugWindow(controller, true);
    AIRecognitionTestPeer::installInertDisplay(controller);
    EXPECT_CALL(*platform, setVideoPQParameters(_)).WillOnce(Return(0));
    EXPECT_CALL(recognition, recognitionPicture(_, _, _, _))
        .WillOnce(Invoke([](korvane::ai::PictureData*, AiPQPredictLabel& current, AiPQPredictLabel& previous,
                            std::vector<TelvoAiPQPredict>* predictions) {
            current = svc::Face;
            previous = svc::Invalid;
            *predictions = {{svc::Face, 0.75f},
                            {svc::Snow, 0.125f},
                            {svc::Performance, 0.5f},
                            {static_cast<AiPQPredictLabel>(25), 0.0f},
                            {svc::Invalid, 1.0f}};
            return 0;
        }));
    LogCapture log;
    controller.recognitionProcess();

    // Offsets sorted by name; the 24-byte item buffer cuts the blank after "-1," for the longest name.
    EXPECT_EQ(debugText(log),
              ">>>>>> Memory Info:"
              "\n>>>>>> Recognition Result:"
              "\nCurrent Label: Face     Previous Label: Invalid"
              "\nPredict Labels: Face:  0.750,  Snow:  0.125,  Performance:  0.500,  Unknown:  0.000,  "
              "Invalid:  1.000,  "
              "\n>>>>>> PQ Parameters:"
              "\nbrightness: 0, colortunerBluB: 0, colortunerBluH: 0, "
              "\ncolortunerBluS: 0, colortunerCynB: 0, colortunerCynH: 0, "
              "\ncolortunerCynS: 0, colortunerFlshTonB: 2, colortunerFlshTonH: -1,"
              "\ncolortunerFlshTonS: 5, colortunerGrnB: 0, colortunerGrnH: 0, "
              "\ncolortunerGrnS: 0, colortunerMagB: 0, colortunerMagH: 0, "
              "\ncolortunerMagS: 0, colortunerRedB: 0, colortunerRedH: -1, "
              "\ncolortunerRedS: 1, colortunerYlwB: 0, colortunerYlwH: 0, "
              "\ncolortunerYlwS: 0, contrast: 0, memc: -1, "
              "\nnr: -1, saturation: 0, sharpness: -4, "
              ".\n");

    // The overlay's copy of the frame is turned to blue-green-red in place.
    const unsigned char* backup = AIRecognitionTestPeer::backupPicture(controller);
    ASSERT_NE(backup, nullptr);
    EXPECT_EQ(backup[0], 3);
    EXPECT_EQ(backup[1], 2);
    EXPECT_EQ(backup[2], 1);
    EXPECT_EQ(backup[224 * 224 * 3 - 1], 1);
}

TEST_F(RecognitionCycleTest, FailedCaptureStillRefreshesTheOverlayButNeverRecognises) {
    AIRecognitionTestPeer::setShowDebugWindow(controller, true);
    AIRecognitionTestPeer::installInertDisplay(controller);
    capture.ok = false;
    EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).Times(0);
    LogCapture log;
    controller.recognitionProcess();
    const std::string text = debugText(log);
    EXPECT_NE(text.find("\nCurrent Label: Invalid     Previous Label: Invalid\nPredict Labels: \n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nnr: -1, saturation: 0, sharpness: 0, .\n"), std::string::npos) << text;
}

TEST_F(RecognitionCycleTest, KeptResultReusesTheLastRecognitionAndPqText) {
    AIRecognitionTestPeer::setShowDebugWindow(controller, true);
    AIRecognitionTestPeer::installInertDisplay(controller);
    EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).WillOnce(answer(0, svc::Cat));
    EXPECT_CALL(*platform, setVideoPQParameters(_)).WillOnce(Return(0));
    controller.recognitionProcess();

    LogCapture log;
    AiPQPredictLabel food = svc::Food;
    controller.updateDebugInfo(true, nullptr, food, food, nullptr);
    const std::string text = debugText(log);
    EXPECT_EQ(text.rfind(">>>>>> Memory Info:", 0), 0u) << text;
    EXPECT_NE(text.find("\nCurrent Label: Cat     Previous Label: Invalid"), std::string::npos) << text;
    // Cat's offsets, not Food's (Food would show colortunerMagS: 5).
    EXPECT_NE(text.find("sharpness: -4, "), std::string::npos) << text;
    EXPECT_NE(text.find("colortunerMagS: 0, "), std::string::npos) << text;
    EXPECT_EQ(text.find("Food"), std::string::npos) << text;
}

TEST_F(RecognitionCycleTest, WithoutTheOverlayNoDebugTextIsBuilt) {
    EXPECT_CALL(recognition, recognitionPicture(_, _, _, _)).WillOnce(answer(0, svc::Cat));
    EXPECT_CALL(*platform, setVideoPQParameters(_)).WillOnce(Return(0));
    LogCapture log;
    controller.recognitionProcess();
    EXPECT_TRUE(log.contains("updateDebugInfo(): [AI Manager] do not enable to show debug window.\n"));
    EXPECT_FALSE(log.contains("debugInfo:"));
}

}  // namespace
