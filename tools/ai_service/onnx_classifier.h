#ifndef TOOLS_AI_SERVICE_ONNX_CLASSIFIER_H
#define TOOLS_AI_SERVICE_ONNX_CLASSIFIER_H

#include <memory>
#include <string>
#include <vector>

#include "scene_classifier.h"

namespace ai_service {

// An ONNX image classifier run through OpenCV's DNN module.
//
// Input: one 1 x 3 x 224 x 224 float tensor (NCHW), channels red, green, blue, each byte scaled
// by 1/255 to 0..1; no mean is subtracted and no further normalisation is applied, so a model
// trained with one must carry it in its graph. Output: one score vector (any shape, read flat).
// The labels file holds one text per output index, one a line; a text that names a scene label
// ("Sky", "grassland", ... case-insensitive) maps that output to it, other outputs are ignored.
// When the scores are not already probabilities (all in 0..1, summing to 1) a softmax over all
// outputs is applied first.
class OnnxClassifier : public SceneClassifier {
public:
    struct Settings {
        std::string modelPath;
        std::string labelsPath;
        int threads = 1;    // <= 0 leaves OpenCV's default
        bool gpu = false;   // OpenCL target when OpenCV has one, else CPU
        bool fp16 = false;  // half-precision OpenCL target, with gpu
    };

    ~OnnxClassifier() override;
    // Loads and test-runs the model; null with a reason when that fails.
    static std::unique_ptr<OnnxClassifier> load(const Settings& settings, std::string* error);

    const char* name() const override { return m_name.c_str(); }
    bool classify(const uint8_t* rgb, Predictions* out, std::string* error) override;

    // Scene label of each output index, -1 where the text maps to none.
    const std::vector<int>& outputLabels() const { return m_outputLabels; }
    // Where the model actually runs ("CPU", "OpenCL", "OpenCL FP16"), and with how many threads.
    const std::string& target() const { return m_target; }
    int threads() const { return m_threads; }

    struct Impl;

private:
    OnnxClassifier();
    std::unique_ptr<Impl> m_impl;
    std::string m_name;
    std::string m_target;
    int m_threads = 0;
    std::vector<int> m_outputLabels;
};

// Turns raw output scores into per-label confidences (softmax when they are not probabilities,
// then the best score of each mapped label). Exposed for tests.
void scoresToLabelConfidences(const std::vector<float>& scores, const std::vector<int>& outputLabels,
                              float* scoreByLabel);

}  // namespace ai_service

#endif
