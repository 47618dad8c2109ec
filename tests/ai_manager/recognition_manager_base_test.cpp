#include "recognition_manager_base.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "log_capture.h"

using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::AiServiceModelConfig;
using telvo_ai_service::TelvoAiPQPredict;
namespace svc = telvo_ai_service;

namespace {

class BareRecognitionManager : public RecognitionManagerBase {
public:
    int loadModel() override { return 0; }
    int recognitionPicture(korvane::ai::PictureData*, AiPQPredictLabel&, AiPQPredictLabel&,
                           std::vector<TelvoAiPQPredict>*) override {
        return 0;
    }
    int releaseModel() override { return 0; }
    int isValidPicture(korvane::ai::PictureData*) override { return 0; }
    int stopAiService() override { return 0; }

    AiServiceModelConfig& config() { return m_modelConfig; }
    AiPQPredictLabel lastLabel() const { return m_lastLabel; }
    void setLastLabel(AiPQPredictLabel label) { m_lastLabel = label; }
};

AiPQPredictLabel L(int v) {
    return static_cast<AiPQPredictLabel>(v);
}

// ---------------------------------------------------------------------------------------------
// Valid scene rule

class ValidSceneTest : public ::testing::Test {
protected:
    AiPQPredictLabel run(std::vector<TelvoAiPQPredict> p) { return run(p, static_cast<int>(p.size())); }
    AiPQPredictLabel run(std::vector<TelvoAiPQPredict> p, int count) {
        AiPQPredictLabel result = m.getValidScene(p.data(), count);
        EXPECT_EQ(result, m.lastLabel()) << "the result must also become the last label";
        return result;
    }
    BareRecognitionManager m;
};

TEST_F(ValidSceneTest, TopConfidenceThresholdIsTheDoublePointFour) {
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.39f}, {svc::Food, 0.38f}}), svc::Invalid);

    // 0.4f widened is 0.4000000059604645, so it passes; the float just below it does not.
    m.setLastLabel(svc::Invalid);
    EXPECT_EQ(run({{svc::Sky, 0.4f}, {svc::Food, 0.1f}}), svc::Sky);
    const float justBelow = std::nextafter(0.4f, 0.0f);
    ASSERT_LT(static_cast<double>(justBelow), 0.4);
    EXPECT_EQ(run({{svc::Sky, justBelow}}), svc::Invalid);
}

TEST_F(ValidSceneTest, NaNTopReadsAsInvalidAndNaNRunnerUpIsNotNearTop) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Food, nan}, {svc::Food, 0.9f}}), svc::Invalid);

    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.9f}, {svc::Food, nan}}), svc::Sky);
}

TEST_F(ValidSceneTest, PreviousSceneStaysWhileWithinPointOneOfTheTop) {
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.80f}, {svc::Food, 0.71f}, {svc::Dog, 0.05f}}), svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.80f}, {svc::Food, 0.69f}, {svc::Dog, 0.05f}}), svc::Sky);
    // Sky is now the scene; Food climbing to 0.09 below the top does not take it back.
    EXPECT_EQ(run({{svc::Food, 0.60f}, {svc::Sky, 0.51f}}), svc::Sky);
    EXPECT_EQ(run({{svc::Food, 0.60f}, {svc::Sky, 0.49f}}), svc::Food);
}

TEST_F(ValidSceneTest, GapIsComputedInSinglePrecision) {
    // 0.8f - 0.7f is 0.10000002 in float: just outside the margin although the decimals say 0.1.
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.8f}, {svc::Food, 0.7f}}), svc::Sky);
    // 0.5f - 0.4f is 0.099999994: inside.
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.5f}, {svc::Food, 0.4f}}), svc::Food);
}

TEST_F(ValidSceneTest, NearTopSetSpansTheWholeCountButNoFurther) {
    // The service's order is taken as it comes: a far entry before a near one does not end the set.
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.8f}, {svc::Dog, 0.3f}, {svc::Food, 0.75f}}), svc::Food);

    // A near entry beyond count is not looked at.
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.8f}, {svc::Dog, 0.3f}, {svc::Food, 0.75f}}, 2), svc::Sky);

    // count 1: only the top itself.
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Sky, 0.8f}, {svc::Food, 0.79f}}, 1), svc::Sky);
}

TEST_F(ValidSceneTest, FirstRecordIsReadEvenWithoutCount) {
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Tree, 0.9f}, {svc::Food, 0.9f}}, 0), svc::Tree);
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Tree, 0.2f}}, 0), svc::Invalid);
    m.setLastLabel(svc::Food);
    EXPECT_EQ(run({{svc::Dog, 0.5f}}, -3), svc::Dog);
}

TEST_F(ValidSceneTest, ResetForgetsTheSceneSoTheTopWins) {
    EXPECT_EQ(m.lastLabel(), svc::Invalid);
    EXPECT_EQ(run({{svc::Food, 0.9f}}), svc::Food);
    m.reset();
    EXPECT_EQ(m.lastLabel(), svc::Invalid);
    EXPECT_EQ(run({{svc::Sky, 0.8f}, {svc::Food, 0.75f}}), svc::Sky);
}

// ---------------------------------------------------------------------------------------------
// Label texts

TEST(LabelTextTest, TableAndUnknownForEverythingOutsideIt) {
    BareRecognitionManager m;
    LogCapture log;
    EXPECT_EQ(m.getLabelText(svc::Cartoon), "Cartoon");
    EXPECT_EQ(m.getLabelText(svc::Fruite), "Fruite");
    EXPECT_EQ(m.getLabelText(svc::Indoor), "Indoor");
    EXPECT_EQ(m.getLabelText(svc::Invalid), "Invalid");
    EXPECT_EQ(m.getLabelText(L(20)), "Unknown");
    EXPECT_EQ(m.getLabelText(L(25)), "Unknown");
    EXPECT_EQ(m.getLabelText(L(-1)), "Unknown");
    EXPECT_TRUE(log.contains("getLabelText(): [AI Manager] label: -1, max_num: 21.\n"));

    const char* expected[] = {"Cartoon", "Soccerball", "Sunflowers", "Sky",         "Daisy",     "Fruite",
                              "Tree",    "Tulips",     "Cat",        "Performance", "Dandelion", "Building",
                              "Food",    "Dog",        "Roses",      "Grassland",   "Face",      "Snow",
                              "Indoor",  "Invalid",    "Unknown"};
    ASSERT_EQ(kAipqLabelTextCount, 21);
    for (int v = 0; v < kAipqLabelTextCount; ++v) {
        EXPECT_STREQ(aipqLabelText(v), expected[v]) << v;
    }
    EXPECT_STREQ(aipqLabelText(21), "Unknown");
    EXPECT_STREQ(aipqLabelText(-1), "Unknown");
}

// ---------------------------------------------------------------------------------------------
// Environment overrides

const char* const kEnvNames[] = {"RECOGNITION_THREAD_NUM", "RECOGNITION_GPU_ENABLE",
                                 "RECOGNITION_GPU_ALLOW_FP16", "RECOGNITION_MODEL_PATH",
                                 "RECOGNITION_LABEL_PATH"};

class LoadEnvTest : public ::testing::Test {
protected:
    void SetUp() override {
        clearEnv();
        // What the service reported: a recognisable byte pattern everywhere.
        auto* bytes = reinterpret_cast<unsigned char*>(&m.config());
        for (size_t i = 0; i < sizeof(AiServiceModelConfig); ++i) {
            bytes[i] = static_cast<unsigned char>(i * 7 + 3);
        }
        m.config().number_of_threads = 4;
        m.config().gl_backend = 1;
        m.config().allow_fp16 = 1;
        std::snprintf(m.config().model_name, sizeof(m.config().model_name), "/svc/model.onnx");
        std::snprintf(m.config().labels_file_name, sizeof(m.config().labels_file_name), "/svc/labels.txt");
        std::memcpy(&reported, &m.config(), sizeof(reported));
    }
    void TearDown() override { clearEnv(); }
    static void clearEnv() {
        for (const char* name : kEnvNames) {
            unsetenv(name);
        }
    }
    int threadsWith(const char* value) {
        m.config().number_of_threads = 4;
        setenv("RECOGNITION_THREAD_NUM", value, 1);
        m.loadEnv();
        return m.config().number_of_threads;
    }
    int flagWith(const char* name, int32_t AiServiceModelConfig::*field, int before, const char* value) {
        m.config().*field = before;
        setenv(name, value, 1);
        m.loadEnv();
        return m.config().*field;
    }

    BareRecognitionManager m;
    AiServiceModelConfig reported;
};

TEST_F(LoadEnvTest, UnsetEnvironmentLeavesTheRecordByteForByte) {
    m.loadEnv();
    EXPECT_EQ(std::memcmp(&m.config(), &reported, sizeof(reported)), 0);
}

TEST_F(LoadEnvTest, ThreadCountOnlyTakesPositiveDecimals) {
    EXPECT_EQ(threadsWith("8"), 8);
    EXPECT_EQ(threadsWith("12abc"), 12);
    EXPECT_EQ(threadsWith("0"), 4);
    EXPECT_EQ(threadsWith("-2"), 4);
    EXPECT_EQ(threadsWith("abc"), 4);
    EXPECT_EQ(threadsWith("99999999999"), 4);
}

TEST_F(LoadEnvTest, GpuSwitchesAreOneForAnyPositiveNumberElseZero) {
    const auto gpu = &AiServiceModelConfig::gl_backend;
    const auto fp16 = &AiServiceModelConfig::allow_fp16;
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ENABLE", gpu, 0, "2"), 1);
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ENABLE", gpu, 1, "0"), 0);
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ENABLE", gpu, 1, "-1"), 0);
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ENABLE", gpu, 1, "yes"), 0);
    unsetenv("RECOGNITION_GPU_ENABLE");
    m.config().gl_backend = 1;
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ALLOW_FP16", fp16, 0, "7"), 1);
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ALLOW_FP16", fp16, 1, "0"), 0);
    EXPECT_EQ(flagWith("RECOGNITION_GPU_ALLOW_FP16", fp16, 1, ""), 0);
    // The other switch is left as it was.
    EXPECT_EQ(m.config().gl_backend, 1);
}

TEST_F(LoadEnvTest, PathsAreBoundedAndClearedAndOpaqueBytesSurvive) {
    const std::string longModel(300, 'm');
    const std::string fullLabels(256, 'l');
    setenv("RECOGNITION_MODEL_PATH", longModel.c_str(), 1);
    setenv("RECOGNITION_LABEL_PATH", fullLabels.c_str(), 1);
    setenv("RECOGNITION_THREAD_NUM", "2", 1);
    setenv("RECOGNITION_GPU_ENABLE", "0", 1);
    setenv("RECOGNITION_GPU_ALLOW_FP16", "0", 1);
    m.loadEnv();

    const AiServiceModelConfig& c = m.config();
    EXPECT_EQ(std::string(c.model_name, 255), std::string(255, 'm'));
    EXPECT_EQ(c.model_name[255], '\0');
    EXPECT_EQ(std::string(c.labels_file_name, 256), fullLabels);

    // Every byte outside the five interpreted fields is carried unchanged.
    auto* now = reinterpret_cast<const unsigned char*>(&c);
    auto* was = reinterpret_cast<const unsigned char*>(&reported);
    int changedOpaque = 0;
    for (size_t i = 0; i < sizeof(AiServiceModelConfig); ++i) {
        const bool interpreted = (i >= 256 && i < 768) || (i >= 784 && i < 792) || (i >= 804 && i < 808);
        if (!interpreted && now[i] != was[i]) {
            ++changedOpaque;
        }
    }
    EXPECT_EQ(changedOpaque, 0);
}

TEST_F(LoadEnvTest, ShorterPathClearsTheRestOfTheField) {
    setenv("RECOGNITION_MODEL_PATH", "/a.onnx", 1);
    setenv("RECOGNITION_LABEL_PATH", "/b.txt", 1);
    LogCapture log;
    m.loadEnv();
    EXPECT_STREQ(m.config().model_name, "/a.onnx");
    EXPECT_STREQ(m.config().labels_file_name, "/b.txt");
    EXPECT_EQ(std::string(m.config().model_name, 256), "/a.onnx" + std::string(256 - 7, '\0'));
    EXPECT_EQ(std::string(m.config().labels_file_name, 256), "/b.txt" + std::string(256 - 6, '\0'));
    EXPECT_TRUE(
        log.contains("loadEnv(): [AI Manager] number_of_threads: 4, gl_backend: 1, allow_fp16: 1, "
                     "model_name: /a.onnx, labels_file_name: /b.txt.\n"));
}

// ---------------------------------------------------------------------------------------------
// Prediction dump

std::string dumpBody(const LogCapture& log) {
    const std::string head = "outputAiPQPredictLabels(): [AI Manager] ";
    for (const auto& line : log.lines()) {
        auto pos = line.find(head);
        if (pos != std::string::npos) {
            return line.substr(pos + head.size());
        }
    }
    return std::string();
}

TEST(PredictionDumpTest, PrintsValuesTextsAndTruncatesEachEntryAtFortyNineCharacters) {
    BareRecognitionManager m;
    TelvoAiPQPredict p[5] = {
        {svc::Performance, 0.5f}, {svc::Invalid, 0.75f}, {L(20), 0.25f}, {L(25), 0.125f}, {L(-1), 0.1f}};
    char title[] = "AiPQPredictLabel";
    LogCapture log;
    m.outputAiPQPredictLabels(title, p, 5);
    EXPECT_EQ(dumpBody(log),
              "\n=========  AiPQPredictLabel   =========\n"
              "\nindex: 9, label: Performance, confidence: 0.5000"  // 51 characters cut to 49
              "\nindex: 19, label: Invalid, confidence: 0.750000"
              "\nindex: 20, label: Unknown, confidence: 0.250000"
              "\nindex: 25, label: Unknown, confidence: 0.125000"
              "\nindex: -1, label: Unknown, confidence: 0.100000"
              "\n=============================\n");
}

TEST(PredictionDumpTest, NullArgumentsAreRefused) {
    BareRecognitionManager m;
    TelvoAiPQPredict p[1] = {{svc::Sky, 0.5f}};
    char title[] = "t";
    LogCapture log;
    m.outputAiPQPredictLabels(nullptr, p, 1);
    m.outputAiPQPredictLabels(title, nullptr, 1);
    EXPECT_EQ(log.count("itemInfo or pTelvoAiPredict is NULL.\n"), 2);
    EXPECT_EQ(log.count("====="), 0);

    log.clear();
    m.outputAiPQPredictLabels(title, p, 0);
    EXPECT_EQ(dumpBody(log), "\n=========  t   =========\n\n=============================\n");
}

}  // namespace
