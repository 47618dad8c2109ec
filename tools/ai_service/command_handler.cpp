#include "command_handler.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "onnx_classifier.h"
#include "reference_classifier.h"
#include "service_log.h"

namespace ai_service {

namespace proto = ai_service_protocol;
using telvo_ai_service::AiServiceModelConfig;

namespace {

constexpr const char* kBuiltinModel = "builtin:reference";

std::string boundedString(const char* field, size_t size) {
    return std::string(field, strnlen(field, size));
}

bool endsWithNoCase(const std::string& text, const char* suffix) {
    size_t n = std::strlen(suffix);
    return text.size() >= n && strcasecmp(text.c_str() + text.size() - n, suffix) == 0;
}

std::string describe(const Predictions& p) {
    std::string text;
    char piece[48];
    for (const auto& record : p) {
        std::snprintf(piece, sizeof(piece), "%s%s %.3f", text.empty() ? "" : ", ", labelText(record.label),
                      static_cast<double>(record.confidence));
        text += piece;
    }
    return text;
}

}  // namespace

CommandHandler::CommandHandler() : m_config(defaultConfig()) {}

CommandHandler::~CommandHandler() = default;

AiServiceModelConfig CommandHandler::defaultConfig() {
    AiServiceModelConfig config;
    std::memset(&config, 0, sizeof(config));
    std::snprintf(config.model_name, sizeof(config.model_name), "%s", kBuiltinModel);
    config.number_of_threads = 1;
    config.gl_backend = 0;
    config.allow_fp16 = 0;
    return config;
}

std::string CommandHandler::commandOf(const char* message, size_t length) {
    size_t n = strnlen(message, length);
    if (n == length) {
        return std::string();
    }
    return std::string(message, n);
}

int32_t CommandHandler::handle(const char* message, size_t length, uint8_t* payload) {
    std::string command = commandOf(message, length);
    std::string previous = m_previousCommand;
    m_previousCommand = command;
    if (command.empty()) {
        AS_LOGE("malformed message of %zu bytes (no NUL-terminated command): answering -1.\n", length);
        return proto::kStateFailed;
    }

    if (command == proto::kCmdInitAiService) {
        m_initialised = true;
        return proto::kStateDone;
    }
    if (command == proto::kCmdStopAiService) {
        m_stopRequested = true;
        return proto::kStateDone;
    }

    // The client has written these already, whatever we answer: keep track of the picture's head.
    if (command == proto::kCmdSetModelConfig) {
        m_guard.afterClientRecord(payload, previous == proto::kCmdGetModelConfig);
    } else if (command == proto::kCmdSetAiType) {
        m_guard.afterClientValue(payload, sizeof(int32_t));
    }

    bool known = command == proto::kCmdGetModelConfig || command == proto::kCmdSetModelConfig ||
                 command == proto::kCmdSetAiType || command == proto::kCmdLoadModel ||
                 command == proto::kCmdReleaseModel || command == proto::kCmdImagePredict ||
                 command == proto::kCmdPredict;
    if (!known) {
        AS_LOGE("unknown command \"%s\": answering -1.\n", command.c_str());
        return proto::kStateFailed;
    }
    if (!m_initialised) {
        AS_LOGN("%s before %s: answering -2.\n", command.c_str(), proto::kCmdInitAiService);
        return proto::kStateNotInit;
    }

    if (command == proto::kCmdGetModelConfig) {
        m_guard.write(payload, &m_config, sizeof(m_config));
        return proto::kStateDone;
    }
    if (command == proto::kCmdSetModelConfig) {
        std::memcpy(&m_config, payload, sizeof(m_config));
        AS_LOGD(
            "model config set: model_name \"%s\", labels_file_name \"%s\", number_of_threads %d, gl_backend "
            "%d, allow_fp16 %d.\n",
            boundedString(m_config.model_name, sizeof(m_config.model_name)).c_str(),
            boundedString(m_config.labels_file_name, sizeof(m_config.labels_file_name)).c_str(),
            m_config.number_of_threads, m_config.gl_backend, m_config.allow_fp16);
        return proto::kStateDone;
    }
    if (command == proto::kCmdSetAiType) {
        std::memcpy(&m_aiType, payload, sizeof(m_aiType));
        return proto::kStateDone;
    }
    if (command == proto::kCmdLoadModel) {
        return loadModel();
    }
    if (command == proto::kCmdReleaseModel) {
        m_classifier.reset();
        return proto::kStateDone;
    }
    if (m_classifier == nullptr) {
        AS_LOGN("%s before %s: answering -3.\n", command.c_str(), proto::kCmdLoadModel);
        return proto::kStateNoModel;
    }
    return command == proto::kCmdPredict ? predict(payload) : imagePredict(payload);
}

int32_t CommandHandler::loadModel() {
    std::string model = boundedString(m_config.model_name, sizeof(m_config.model_name));
    if (model.empty() || model == kBuiltinModel) {
        m_classifier.reset(new ReferenceClassifier);
        AS_LOGD("model loaded: %s (reference classifier, not a trained model).\n", kBuiltinModel);
        return proto::kStateDone;
    }
    if (!endsWithNoCase(model, ".onnx")) {
        m_classifier.reset();
        AS_LOGE("cannot load model \"%s\": this service runs \"%s\" or an ONNX model file (*.onnx).\n",
                model.c_str(), kBuiltinModel);
        return proto::kStateFailed;
    }
    OnnxClassifier::Settings settings;
    settings.modelPath = model;
    settings.labelsPath = boundedString(m_config.labels_file_name, sizeof(m_config.labels_file_name));
    settings.threads = m_config.number_of_threads;
    settings.gpu = m_config.gl_backend > 0;
    settings.fp16 = m_config.allow_fp16 > 0;
    std::string error;
    std::unique_ptr<OnnxClassifier> onnx = OnnxClassifier::load(settings, &error);
    if (onnx == nullptr) {
        m_classifier.reset();
        AS_LOGE("cannot load model \"%s\": %s.\n", model.c_str(), error.c_str());
        return proto::kStateFailed;
    }
    AS_LOGD("model loaded: %s on %s, %zu outputs, %d threads.\n", model.c_str(), onnx->target().c_str(),
            onnx->outputLabels().size(), onnx->threads());
    m_classifier = std::move(onnx);
    return proto::kStateDone;
}

void CommandHandler::preparePicture(uint8_t* payload, const char* command) {
    bool restored = m_guard.restore(payload);
    m_lastDigest = proto::pictureDigest(payload, kPictureBytes);
    AS_LOGD("%s: picture %016llx%s.\n", command, static_cast<unsigned long long>(m_lastDigest),
            restored ? " (first bytes restored after the configuration exchange)" : "");
}

int32_t CommandHandler::imagePredict(uint8_t* payload) {
    preparePicture(payload, proto::kCmdImagePredict);
    int32_t result = static_cast<int32_t>(assessPicture(payload));
    m_guard.write(payload, &result, sizeof(result));
    return proto::kStateDone;
}

int32_t CommandHandler::predict(uint8_t* payload) {
    preparePicture(payload, proto::kCmdPredict);
    Predictions predictions;
    std::string error;
    if (!m_classifier->classify(payload, &predictions, &error)) {
        AS_LOGE("%s failed on the picture: %s.\n", m_classifier->name(), error.c_str());
        return proto::kStateFailed;
    }
    AS_LOGD("predict: %s.\n", describe(predictions).c_str());
    uint8_t result[proto::kPredictResultSize];
    std::memset(result, 0, sizeof(result));
    int32_t count = kRecordCount;
    std::memcpy(result, &count, sizeof(count));
    std::memcpy(result + proto::kPredictRecordsOffset, predictions.data(), sizeof(predictions));
    m_guard.write(payload, result, sizeof(result));
    return proto::kStateDone;
}

}  // namespace ai_service
