#ifndef AI_MANAGER_RECOGNITION_MANAGER_BASE_H
#define AI_MANAGER_RECOGNITION_MANAGER_BASE_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "ai_service_protocol.h"
#include "picture_data.h"

namespace korvane {
namespace ai {
// Result codes shared by every request of the AI service client.
enum RecognitionManagerResult : int32_t {
    RECOGNITION_RESULT_SUCCESS = 0,
    RECOGNITION_RESULT_FAILED = 1,
    RECOGNITION_RESULT_SERVICE_NOT_INIT = 2,
    RECOGNITION_RESULT_MODEL_NOT_LOADED = 3,
};
}  // namespace ai
}  // namespace korvane

// Label texts by value: the twenty scene labels, then "Unknown" for anything else.
constexpr int kAipqLabelTextCount = ai_service_protocol::kLabelCount + 1;
const char* aipqLabelText(int value);

// Scene recognition as the controller sees it, independent of how the AI service is reached.
class RecognitionManagerBase {
public:
    RecognitionManagerBase();
    virtual ~RecognitionManagerBase();

    virtual bool getModelLoadState();
    virtual int loadModel() = 0;
    virtual int recognitionPicture(korvane::ai::PictureData* picture,
                                   telvo_ai_service::AiPQPredictLabel& current,
                                   telvo_ai_service::AiPQPredictLabel& previous,
                                   std::vector<telvo_ai_service::TelvoAiPQPredict>* predictions) = 0;
    virtual int releaseModel() = 0;
    virtual int isValidPicture(korvane::ai::PictureData* picture) = 0;
    virtual int stopAiService() = 0;
    virtual std::string getLabelText(telvo_ai_service::AiPQPredictLabel label);
    virtual void reset();
    virtual int loadAiServiceEnv();

    // Applies the RECOGNITION_* environment overrides to the model configuration.
    void loadEnv();
    // Hysteresis rule: keeps the last scene while it stays within 0.1 of the top prediction.
    telvo_ai_service::AiPQPredictLabel getValidScene(telvo_ai_service::TelvoAiPQPredict* predictions,
                                                     int count);
    void outputAiPQPredictLabels(char* title, telvo_ai_service::TelvoAiPQPredict* predictions, int count);
    // Teardown: from now on no request waits for its answer, the one in flight included; each ends
    // with 1 at its next poll. Never undone.
    void abandonRequests();

protected:
    bool m_modelLoaded;
    telvo_ai_service::AiServiceModelConfig m_modelConfig;
    telvo_ai_service::AiPQPredictLabel m_lastLabel;
    bool m_aiServiceEnvLoaded;
    std::atomic<bool> m_requestsAbandoned;
};

#endif
