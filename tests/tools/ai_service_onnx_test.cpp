// The AI service's ONNX backend on a small model built here: mean R, G, B -> four scores.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "command_handler.h"
#include "onnx_classifier.h"

using namespace ai_service;
namespace proto = ai_service_protocol;

namespace {

// Weights by input channel (R, G, B) for the outputs "sky", "grassland", "snow", "unmapped_thing".
const float kWeights[3][4] = {{-5, -5, 5, 10}, {-5, 10, 5, -5}, {10, -5, 5, -5}};
const float kBias[4] = {0, 0, -10, 0};

const char* kBuilder = R"PY(
import sys
try:
    import numpy as np
    import onnx
    from onnx import helper, numpy_helper, TensorProto
except ImportError as e:
    print("missing:", e)
    sys.exit(3)
out, softmax = sys.argv[1], sys.argv[2] == "1"
w = np.array([[-5, -5, 5, 10], [-5, 10, 5, -5], [10, -5, 5, -5]], dtype=np.float32)
b = np.array([0, 0, -10, 0], dtype=np.float32)
nodes = [
    helper.make_node("GlobalAveragePool", ["input"], ["pooled"]),
    helper.make_node("Flatten", ["pooled"], ["flat"], axis=1),
    helper.make_node("Gemm", ["flat", "w", "b"], ["scores"], transB=1),
]
last = "scores"
if softmax:
    nodes.append(helper.make_node("Softmax", ["scores"], ["probs"], axis=1))
    last = "probs"
graph = helper.make_graph(
    nodes, "scene",
    [helper.make_tensor_value_info("input", TensorProto.FLOAT, [1, 3, 224, 224])],
    [helper.make_tensor_value_info(last, TensorProto.FLOAT, [1, 4])],
    [numpy_helper.from_array(np.ascontiguousarray(w.T), "w"), numpy_helper.from_array(b, "b")])
model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 11)])
model.ir_version = 6
onnx.checker.check_model(model)
onnx.save(model, out)
)PY";

class OnnxBackendTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/aipq_onnx_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        s_dir = pattern;
        std::ofstream(s_dir + "/build.py") << kBuilder;
        std::ofstream(s_dir + "/labels.txt") << "sky\nGrassland\n  SNOW \nunmapped_thing\n";
        std::ofstream(s_dir + "/garbage.onnx") << "this is not a protobuf";
        for (int softmax = 0; softmax < 2; ++softmax) {
            // Debian's interpreter: the one python3-onnx is installed for.
            std::string cmd = "/usr/bin/python3 " + s_dir + "/build.py " + modelPath(softmax == 1) + " " +
                              std::to_string(softmax) + " > " + s_dir + "/build.log 2>&1";
            int status = std::system(cmd.c_str());
            if (WIFEXITED(status) && WEXITSTATUS(status) == 3) {
                s_skip = "/usr/bin/python3 has no onnx module (scripts/setup.sh installs python3-onnx)";
                return;
            }
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                << "model builder failed, see " << s_dir;
        }
    }
    static void TearDownTestSuite() {
        if (!s_dir.empty()) {
            std::system(("rm -rf " + s_dir).c_str());
        }
    }
    void SetUp() override {
        if (!s_skip.empty()) {
            GTEST_SKIP() << s_skip;
        }
    }

    static std::string modelPath(bool softmax) { return s_dir + (softmax ? "/probs.onnx" : "/scores.onnx"); }

    static std::unique_ptr<OnnxClassifier> load(bool softmax, std::string* error, int threads = 1,
                                                bool gpu = false) {
        OnnxClassifier::Settings settings;
        settings.modelPath = modelPath(softmax);
        settings.labelsPath = s_dir + "/labels.txt";
        settings.threads = threads;
        settings.gpu = gpu;
        return OnnxClassifier::load(settings, error);
    }

    static std::vector<uint8_t> flat(uint8_t r, uint8_t g, uint8_t b) {
        std::vector<uint8_t> picture(kPictureBytes);
        for (size_t i = 0; i < picture.size(); i += 3) {
            picture[i] = r;
            picture[i + 1] = g;
            picture[i + 2] = b;
        }
        return picture;
    }

    // Softmax over all four outputs, as the model with the Softmax node computes it.
    static std::vector<double> expected(uint8_t r, uint8_t g, uint8_t b) {
        double m[3] = {r / 255.0, g / 255.0, b / 255.0};
        std::vector<double> s(4);
        double top = -1e9, total = 0;
        for (int j = 0; j < 4; ++j) {
            s[j] = kBias[j];
            for (int c = 0; c < 3; ++c) {
                s[j] += m[c] * kWeights[c][j];
            }
            top = std::max(top, s[j]);
        }
        for (double& v : s) {
            v = std::exp(v - top);
            total += v;
        }
        for (double& v : s) {
            v /= total;
        }
        return s;
    }

    static std::string s_dir;
    static std::string s_skip;
};

std::string OnnxBackendTest::s_dir;
std::string OnnxBackendTest::s_skip;

TEST_F(OnnxBackendTest, OutputsMapToLabelsByTextAndComeMostConfidentFirst) {
    for (bool softmax : {false, true}) {
        SCOPED_TRACE(softmax ? "model ends in softmax" : "raw scores");
        std::string error;
        auto classifier = load(softmax, &error);
        ASSERT_NE(classifier, nullptr) << error;
        EXPECT_EQ(classifier->outputLabels(),
                  (std::vector<int>{telvo_ai_service::Sky, telvo_ai_service::Grassland,
                                    telvo_ai_service::Snow, -1}));

        struct Case {
            uint8_t r, g, b;
            telvo_ai_service::AiPQPredictLabel top;
        };
        for (const Case& c :
             {Case{51, 102, 230, telvo_ai_service::Sky}, Case{60, 200, 40, telvo_ai_service::Grassland},
              Case{250, 250, 250, telvo_ai_service::Snow}}) {
            std::vector<uint8_t> picture = flat(c.r, c.g, c.b);
            Predictions p;
            ASSERT_TRUE(classifier->classify(picture.data(), &p, &error)) << error;
            EXPECT_EQ(p[0].label, c.top);
            std::vector<double> want = expected(c.r, c.g, c.b);
            // Scores are turned into probabilities once, whichever way the model ends.
            float sum = 0;
            for (const auto& rec : p) {
                int output = rec.label == telvo_ai_service::Sky         ? 0
                             : rec.label == telvo_ai_service::Grassland ? 1
                             : rec.label == telvo_ai_service::Snow      ? 2
                                                                        : -1;
                EXPECT_NEAR(rec.confidence, output >= 0 ? want[output] : 0.0, 2e-4) << labelText(rec.label);
                sum += rec.confidence;
            }
            EXPECT_LE(sum, 1.0f + 1e-5f);
            EXPECT_GE(p[0].confidence, p[1].confidence);
            EXPECT_GE(p[1].confidence, p[2].confidence);
        }

        // Red wins on the unmapped output: it is skipped, the mapped ones keep their share.
        std::vector<uint8_t> red = flat(250, 20, 20);
        Predictions p;
        ASSERT_TRUE(classifier->classify(red.data(), &p, &error)) << error;
        std::vector<double> want = expected(250, 20, 20);
        ASSERT_GT(want[3], 0.9);
        EXPECT_EQ(p[0].label, telvo_ai_service::Snow);
        EXPECT_NEAR(p[0].confidence, want[2], 2e-4);
        for (const auto& rec : p) {
            EXPECT_LT(rec.confidence, 0.1f);
        }
    }
}

TEST_F(OnnxBackendTest, SettingsAreHonouredWhereOpenCvCan) {
    std::string error;
    auto classifier = load(false, &error, 2, /*gpu=*/true);
    ASSERT_NE(classifier, nullptr) << error;
    EXPECT_EQ(classifier->threads(), 2);
    EXPECT_TRUE(classifier->target() == "CPU" || classifier->target() == "OpenCL") << classifier->target();
    std::vector<uint8_t> picture = flat(51, 102, 230);
    Predictions p;
    ASSERT_TRUE(classifier->classify(picture.data(), &p, &error)) << error;
    EXPECT_EQ(p[0].label, telvo_ai_service::Sky);
}

TEST_F(OnnxBackendTest, UnusableModelsAndLabelsFailToLoadWithAReason) {
    struct Case {
        std::string model, labels, reason;
    };
    std::vector<Case> cases = {
        {s_dir + "/missing.onnx", s_dir + "/labels.txt", "cannot read model file"},
        {s_dir + "/garbage.onnx", s_dir + "/labels.txt", "not a usable ONNX model"},
        {modelPath(false), s_dir + "/missing.txt", "cannot read labels file"},
        {modelPath(false), "", "no labels file"},
        {modelPath(false), s_dir + "/build.py", "names a scene label"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model + " / " + c.labels);
        OnnxClassifier::Settings settings;
        settings.modelPath = c.model;
        settings.labelsPath = c.labels;
        std::string error;
        EXPECT_EQ(OnnxClassifier::load(settings, &error), nullptr);
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }
}

// Through the command interface, as the daemon's configuration overrides arrive.
TEST_F(OnnxBackendTest, ServiceLoadsTheConfiguredModelAndAnswersFailureForABadOne) {
    CommandHandler handler;
    std::vector<uint8_t> payload = flat(60, 200, 40);
    auto send = [&](const char* cmd) {
        char message[40] = {};
        std::strncpy(message, cmd, 39);
        return handler.handle(message, sizeof(message), payload.data());
    };
    ASSERT_EQ(send(proto::kCmdInitAiService), 0);
    ASSERT_EQ(send(proto::kCmdGetModelConfig), 0);
    telvo_ai_service::AiServiceModelConfig config;
    std::memcpy(&config, payload.data(), sizeof(config));
    std::snprintf(config.model_name, sizeof(config.model_name), "%s", modelPath(true).c_str());
    std::snprintf(config.labels_file_name, sizeof(config.labels_file_name), "%s",
                  (s_dir + "/labels.txt").c_str());
    std::memcpy(payload.data(), &config, sizeof(config));
    ASSERT_EQ(send(proto::kCmdSetModelConfig), 0);
    int32_t zero = 0;
    std::memcpy(payload.data(), &zero, 4);
    ASSERT_EQ(send(proto::kCmdSetAiType), 0);
    ASSERT_EQ(send(proto::kCmdLoadModel), 0);
    ASSERT_EQ(send(proto::kCmdPredict), 0);
    telvo_ai_service::TelvoAiPQPredict top;
    std::memcpy(&top, payload.data() + 4, sizeof(top));
    EXPECT_EQ(top.label, telvo_ai_service::Grassland)
        << "classified the configuration bytes, not the picture?";

    std::snprintf(config.model_name, sizeof(config.model_name), "%s", (s_dir + "/garbage.onnx").c_str());
    ASSERT_EQ(send(proto::kCmdGetModelConfig), 0);
    std::memcpy(payload.data(), &config, sizeof(config));
    ASSERT_EQ(send(proto::kCmdSetModelConfig), 0);
    EXPECT_EQ(send(proto::kCmdLoadModel), proto::kStateFailed);
    EXPECT_EQ(send(proto::kCmdPredict), proto::kStateNoModel);
}

}  // namespace
