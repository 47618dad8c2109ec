#include "onnx_classifier.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/dnn.hpp>

#include "service_log.h"

namespace ai_service {

struct OnnxClassifier::Impl {
    cv::dnn::Net net;
};

namespace {

std::string oneLine(const std::string& text) {
    std::string out = text;
    std::replace(out.begin(), out.end(), '\n', ' ');
    while (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return out;
}

bool runNet(cv::dnn::Net& net, const uint8_t* rgb, std::vector<float>* scores, std::string* error) {
    try {
        cv::Mat picture(kPictureHeight, kPictureWidth, CV_8UC3, const_cast<uint8_t*>(rgb));
        cv::Mat blob =
            cv::dnn::blobFromImage(picture, 1.0 / 255.0, cv::Size(), cv::Scalar(), false, false, CV_32F);
        net.setInput(blob);
        cv::Mat output = net.forward();
        if (output.empty()) {
            *error = "the model produced no output";
            return false;
        }
        cv::Mat flat;
        output.reshape(1, 1).convertTo(flat, CV_32F);
        scores->assign(flat.ptr<float>(0), flat.ptr<float>(0) + flat.total());
        return true;
    } catch (const cv::Exception& e) {
        *error = oneLine(e.what());
        return false;
    }
}

}  // namespace

OnnxClassifier::OnnxClassifier() : m_impl(new Impl) {}

OnnxClassifier::~OnnxClassifier() = default;

std::unique_ptr<OnnxClassifier> OnnxClassifier::load(const Settings& settings, std::string* error) {
    std::string ignored;
    std::string& why = error != nullptr ? *error : ignored;
    if (settings.labelsPath.empty()) {
        why = "no labels file (labels_file_name) is set, so no output can be mapped to a scene label";
        return nullptr;
    }
    std::ifstream labels(settings.labelsPath);
    if (!labels) {
        why = "cannot read labels file \"" + settings.labelsPath + "\": " + std::strerror(errno);
        return nullptr;
    }
    std::vector<int> outputLabels;
    int mapped = 0;
    for (std::string line; std::getline(labels, line);) {
        int label = labelFromText(line);
        outputLabels.push_back(label);
        mapped += label >= 0;
    }
    if (mapped == 0) {
        why = "none of the " + std::to_string(outputLabels.size()) + " texts in \"" + settings.labelsPath +
              "\" names a scene label";
        return nullptr;
    }
    if (!std::ifstream(settings.modelPath)) {
        why = "cannot read model file \"" + settings.modelPath + "\": " + std::strerror(errno);
        return nullptr;
    }

    std::unique_ptr<OnnxClassifier> classifier(new OnnxClassifier);
    cv::dnn::Net& net = classifier->m_impl->net;
    try {
        net = cv::dnn::readNetFromONNX(settings.modelPath);
    } catch (const cv::Exception& e) {
        why = "\"" + settings.modelPath + "\" is not a usable ONNX model: " + oneLine(e.what());
        return nullptr;
    }
    if (net.empty()) {
        why = "\"" + settings.modelPath + "\" holds no network";
        return nullptr;
    }
    if (settings.threads > 0) {
        cv::setNumThreads(settings.threads);
    }
    classifier->m_threads = cv::getNumThreads();

    net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    classifier->m_target = "CPU";
    if (settings.gpu) {
        if (cv::ocl::haveOpenCL()) {
            cv::ocl::setUseOpenCL(true);
            net.setPreferableTarget(settings.fp16 ? cv::dnn::DNN_TARGET_OPENCL_FP16
                                                  : cv::dnn::DNN_TARGET_OPENCL);
            classifier->m_target = settings.fp16 ? "OpenCL FP16" : "OpenCL";
        } else {
            AS_LOGN("gl_backend is set but OpenCV has no OpenCL device here: running on the CPU.\n");
        }
    } else if (settings.fp16) {
        AS_LOGN("allow_fp16 applies to the GPU target only; gl_backend is 0: running on the CPU in float.\n");
    }
    if (classifier->m_target == "CPU") {
        net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    }

    // A trial run catches models that parse but cannot run on this input, before the first picture.
    std::vector<uint8_t> blank(kPictureBytes, 0);
    std::vector<float> scores;
    std::string runError;
    if (!runNet(net, blank.data(), &scores, &runError) && classifier->m_target != "CPU") {
        AS_LOGN("model does not run on %s (%s): running on the CPU.\n", classifier->m_target.c_str(),
                runError.c_str());
        net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
        classifier->m_target = "CPU";
        runError.clear();
        runNet(net, blank.data(), &scores, &runError);
    }
    if (!runError.empty()) {
        why = "\"" + settings.modelPath + "\" does not run on a 1x3x224x224 picture: " + runError;
        return nullptr;
    }
    if (scores.size() != outputLabels.size()) {
        AS_LOGN("model has %zu outputs, labels file %zu lines: %s.\n", scores.size(), outputLabels.size(),
                scores.size() > outputLabels.size() ? "outputs without a line are ignored"
                                                    : "lines without an output are ignored");
    }
    outputLabels.resize(scores.size(), -1);
    classifier->m_outputLabels = outputLabels;
    classifier->m_name = settings.modelPath;
    return classifier;
}

bool OnnxClassifier::classify(const uint8_t* rgb, Predictions* out, std::string* error) {
    std::string ignored;
    std::vector<float> scores;
    if (!runNet(m_impl->net, rgb, &scores, error != nullptr ? error : &ignored)) {
        return false;
    }
    float byLabel[kSceneLabelCount];
    scoresToLabelConfidences(scores, m_outputLabels, byLabel);
    *out = topPredictions(byLabel);
    return true;
}

void scoresToLabelConfidences(const std::vector<float>& scores, const std::vector<int>& outputLabels,
                              float* scoreByLabel) {
    std::fill(scoreByLabel, scoreByLabel + kSceneLabelCount, 0.0f);
    if (scores.empty()) {
        return;
    }
    bool probabilities = true;
    double sum = 0.0;
    for (float s : scores) {
        if (!std::isfinite(s) || s < 0.0f || s > 1.0f) {
            probabilities = false;
            break;
        }
        sum += s;
    }
    probabilities = probabilities && std::fabs(sum - 1.0) <= 1e-3;
    std::vector<double> p(scores.begin(), scores.end());
    if (!probabilities) {
        double top = -INFINITY;
        for (double s : p) {
            if (std::isfinite(s)) {
                top = std::max(top, s);
            }
        }
        double total = 0.0;
        for (double& s : p) {
            s = std::isfinite(s) ? std::exp(s - top) : 0.0;
            total += s;
        }
        for (double& s : p) {
            s = total > 0.0 ? s / total : 0.0;
        }
    }
    for (size_t i = 0; i < p.size() && i < outputLabels.size(); ++i) {
        int label = outputLabels[i];
        if (label >= 0 && label < kSceneLabelCount) {
            scoreByLabel[label] = std::max(scoreByLabel[label], static_cast<float>(p[i]));
        }
    }
}

}  // namespace ai_service
