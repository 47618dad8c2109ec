// The ONNX backend on the model of onnx_model.h.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "onnx_classifier.h"
#include "onnx_model.h"

namespace {

TEST(OnnxBackendTest, LoadsAModelMapsOutputsByLabelTextAndRefusesGarbage) {
    char tmpl[] = "/tmp/aipq_onnx_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    std::ofstream(dir + "/labels.txt") << "  SKY\ngrassland\nnot_a_scene\n";
    std::ofstream(dir + "/garbage.onnx") << "not a protobuf";
    ONNX_MODEL_OR_SKIP(dir);

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
