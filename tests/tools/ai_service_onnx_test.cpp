// The ONNX backend on a model built here: ten times the mean red, green and blue as three scores.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "onnx_classifier.h"

namespace {

const char* kBuilder = R"PY(
import sys, numpy as np, onnx
from onnx import helper as h, numpy_helper, TensorProto as T
nodes = [h.make_node("GlobalAveragePool", ["x"], ["p"]), h.make_node("Flatten", ["p"], ["f"]),
         h.make_node("Gemm", ["f", "w"], ["y"])]
graph = h.make_graph(nodes, "g", [h.make_tensor_value_info("x", T.FLOAT, [1, 3, 224, 224])],
                     [h.make_tensor_value_info("y", T.FLOAT, [1, 3])],
                     [numpy_helper.from_array(np.eye(3, dtype=np.float32) * 10, "w")])
model = h.make_model(graph, opset_imports=[h.make_opsetid("", 11)])
model.ir_version = 6
onnx.save(model, sys.argv[1])
)PY";

TEST(OnnxBackendTest, LoadsAModelMapsOutputsByLabelTextAndRefusesGarbage) {
    char tmpl[] = "/tmp/aipq_onnx_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    std::ofstream(dir + "/build.py") << kBuilder;
    std::ofstream(dir + "/labels.txt") << "  SKY\ngrassland\nnot_a_scene\n";
    std::ofstream(dir + "/garbage.onnx") << "not a protobuf";
    // Debian's interpreter: the one python3-onnx is installed for.
    std::string out;
    const int built = runCommand("/usr/bin/python3 " + dir + "/build.py " + dir + "/model.onnx", &out);
    if (out.find("No module named") != std::string::npos) {
        std::filesystem::remove_all(dir);
        GTEST_SKIP() << "/usr/bin/python3 has no onnx module (scripts/setup.sh installs python3-onnx)";
    }
    ASSERT_EQ(built, 0) << out;

    ai_service::OnnxClassifier::Settings settings;
    settings.modelPath = dir + "/model.onnx";
    settings.labelsPath = dir + "/labels.txt";
    std::string error;
    auto classifier = ai_service::OnnxClassifier::load(settings, &error);
    ASSERT_NE(classifier, nullptr) << error;
    EXPECT_EQ(classifier->outputLabels(), (std::vector<int>{3, 15, -1}));
    std::vector<uint8_t> green(ai_service::kPictureBytes);
    for (size_t i = 0; i < green.size(); i += 3) {
        green[i] = 40, green[i + 1] = 200, green[i + 2] = 60;
    }
    ai_service::Predictions p;
    ASSERT_TRUE(classifier->classify(green.data(), &p, &error)) << error;
    EXPECT_EQ(p[0].label, 15) << "Grassland";
    EXPECT_GT(p[0].confidence, 0.9f);
    EXPECT_EQ(p[1].label, 3) << "Sky";

    settings.modelPath = dir + "/garbage.onnx";
    EXPECT_EQ(ai_service::OnnxClassifier::load(settings, &error), nullptr);
    EXPECT_NE(error.find("not a usable ONNX model"), std::string::npos) << error;
    std::filesystem::remove_all(dir);
}

}  // namespace
