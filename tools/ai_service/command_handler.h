#ifndef TOOLS_AI_SERVICE_COMMAND_HANDLER_H
#define TOOLS_AI_SERVICE_COMMAND_HANDLER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "ai_service_protocol.h"
#include "payload_guard.h"
#include "scene_classifier.h"

namespace ai_service {

// What the service does with one command, apart from the transport: reads its input from the
// payload, writes its output there and returns the state word to publish afterwards.
class CommandHandler {
public:
    CommandHandler();
    ~CommandHandler();

    // `message` is the received queue message of `length` bytes; `payload` the segment's payload.
    int32_t handle(const char* message, size_t length, uint8_t* payload);

    bool stopRequested() const { return m_stopRequested; }
    bool initialised() const { return m_initialised; }
    bool modelLoaded() const { return m_classifier != nullptr; }
    const telvo_ai_service::AiServiceModelConfig& config() const { return m_config; }
    int32_t aiType() const { return m_aiType; }
    // Digest of the last picture classified (image_predict or predict), 0 before the first.
    uint64_t lastPictureDigest() const { return m_lastDigest; }

    // The record the service starts with, before any client has set one.
    static telvo_ai_service::AiServiceModelConfig defaultConfig();
    // The command text of a message, or empty when it is not a NUL-terminated string.
    static std::string commandOf(const char* message, size_t length);

private:
    int32_t loadModel();
    int32_t imagePredict(uint8_t* payload);
    int32_t predict(uint8_t* payload);
    void preparePicture(uint8_t* payload, const char* command);

    bool m_initialised = false;
    bool m_stopRequested = false;
    telvo_ai_service::AiServiceModelConfig m_config;
    int32_t m_aiType = 0;
    std::unique_ptr<SceneClassifier> m_classifier;
    PayloadGuard m_guard;
    std::string m_previousCommand;
    uint64_t m_lastDigest = 0;
};

}  // namespace ai_service

#endif
