#include "recognition_manager_base.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ai_common.h"
#include "aipq_log.h"

using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::TelvoAiPQPredict;

namespace {

constexpr const char* kUnknownText = "Unknown";
constexpr double kMinTopConfidence = 0.4;
constexpr double kKeepSceneMargin = 0.1;
constexpr size_t kPathFieldSize = sizeof(telvo_ai_service::AiServiceModelConfig::model_name);

}  // namespace

const char* aipqLabelText(int value) {
    // Unsigned, so that negative values are "Unknown" as well.
    return static_cast<unsigned int>(value) < static_cast<unsigned int>(ai_service_protocol::kLabelCount)
               ? ai_service_protocol::kLabelTexts[value]
               : kUnknownText;
}

RecognitionManagerBase::RecognitionManagerBase()
    : m_modelLoaded(false),
      m_lastLabel(telvo_ai_service::Invalid),
      m_aiServiceEnvLoaded(false),
      m_requestsAbandoned(false) {}

RecognitionManagerBase::~RecognitionManagerBase() {}

void RecognitionManagerBase::abandonRequests() {
    m_requestsAbandoned = true;
}

bool RecognitionManagerBase::getModelLoadState() {
    return m_modelLoaded;
}

std::string RecognitionManagerBase::getLabelText(AiPQPredictLabel label) {
    AM_LOGD("label: %d, max_num: %d.\n", static_cast<int>(label), kAipqLabelTextCount);
    return std::string(aipqLabelText(static_cast<int>(label)));
}

void RecognitionManagerBase::reset() {
    m_lastLabel = telvo_ai_service::Invalid;
}

int RecognitionManagerBase::loadAiServiceEnv() {
    return 0;
}

void RecognitionManagerBase::loadEnv() {
    const char* value = std::getenv("RECOGNITION_THREAD_NUM");
    if (value != nullptr) {
        m_modelConfig.number_of_threads = str2int(value, m_modelConfig.number_of_threads);
    }
    value = std::getenv("RECOGNITION_GPU_ENABLE");
    if (value != nullptr) {
        m_modelConfig.gl_backend = str2int(value, 0) > 0 ? 1 : 0;
    }
    value = std::getenv("RECOGNITION_GPU_ALLOW_FP16");
    if (value != nullptr) {
        m_modelConfig.allow_fp16 = str2int(value, 0) > 0 ? 1 : 0;
    }
    value = std::getenv("RECOGNITION_MODEL_PATH");
    if (value != nullptr) {
        std::memset(m_modelConfig.model_name, 0, kPathFieldSize);
        std::snprintf(m_modelConfig.model_name, kPathFieldSize, "%s", value);
    }
    value = std::getenv("RECOGNITION_LABEL_PATH");
    if (value != nullptr) {
        // The service reads this field with its length bound, so a full field needs no NUL.
        std::memset(m_modelConfig.labels_file_name, 0, kPathFieldSize);
        std::memcpy(m_modelConfig.labels_file_name, value, strnlen(value, kPathFieldSize));
    }
    // Either path may fill its field without a NUL, so print bounded copies.
    const std::string modelName(m_modelConfig.model_name, strnlen(m_modelConfig.model_name, kPathFieldSize));
    const std::string labelsName(m_modelConfig.labels_file_name,
                                 strnlen(m_modelConfig.labels_file_name, kPathFieldSize));
    AM_LOGS("number_of_threads: %d, gl_backend: %d, allow_fp16: %d, model_name: %s, labels_file_name: %s.\n",
            m_modelConfig.number_of_threads, m_modelConfig.gl_backend, m_modelConfig.allow_fp16,
            modelName.c_str(), labelsName.c_str());
}

AiPQPredictLabel RecognitionManagerBase::getValidScene(TelvoAiPQPredict* predictions, int count) {
    const float top = predictions[0].confidence;
    // Written as a negated >= so that a NaN confidence also reads as no usable scene.
    if (!(static_cast<double>(top) >= kMinTopConfidence)) {
        m_lastLabel = telvo_ai_service::Invalid;
        return m_lastLabel;
    }
    if (count < 1) {
        m_lastLabel = predictions[0].label;
        return m_lastLabel;
    }
    for (int i = 0; i < count; ++i) {
        const float gap = top - predictions[i].confidence;
        if (static_cast<double>(gap) <= kKeepSceneMargin && predictions[i].label == m_lastLabel) {
            // The current scene is still close to the top: keep it to avoid flicker between scenes.
            return m_lastLabel;
        }
    }
    m_lastLabel = predictions[0].label;
    return m_lastLabel;
}

void RecognitionManagerBase::outputAiPQPredictLabels(char* title, TelvoAiPQPredict* predictions, int count) {
    if (predictions == nullptr || title == nullptr) {
        AM_LOGE("itemInfo or pTelvoAiPredict is NULL.\n");
        return;
    }
    std::string text = "\n=========  ";
    text += title;
    text += "   =========\n";
    for (int i = 0; i < count; ++i) {
        char item[50];
        const int value = static_cast<int>(predictions[i].label);
        std::snprintf(item, sizeof(item), "\nindex: %d, label: %s, confidence: %f", value,
                      aipqLabelText(value), static_cast<double>(predictions[i].confidence));
        text += item;
    }
    text += "\n=============================";
    AM_LOGD("%s\n", text.c_str());
}
