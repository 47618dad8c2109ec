#ifndef AI_MANAGER_AI_SERVICE_PROTOCOL_H
#define AI_MANAGER_AI_SERVICE_PROTOCOL_H

#include <cstddef>
#include <cstdint>

// The wire between ai_manager and the AI service process: a System V segment with a request
// header and one picture-sized payload, and a POSIX queue carrying one command string a request.

namespace telvo_ai_service {

// Scene labels; also the row index of the PQ offset table.
enum AiPQPredictLabel : int32_t {
    Cartoon = 0,
    Soccerball = 1,
    Sunflowers = 2,
    Sky = 3,
    Daisy = 4,
    Fruite = 5,
    Tree = 6,
    Tulips = 7,
    Cat = 8,
    Performance = 9,
    Dandelion = 10,
    Building = 11,
    Food = 12,
    Dog = 13,
    Roses = 14,
    Grassland = 15,
    Face = 16,
    Snow = 17,
    Indoor = 18,
    Invalid = 19,
};

struct TelvoAiPQPredict {
    AiPQPredictLabel label;
    float confidence;
};
static_assert(sizeof(TelvoAiPQPredict) == 8, "prediction record is 8 bytes on the wire");

// Model configuration, exchanged whole. Only the named fields are interpreted by the daemon.
struct AiServiceModelConfig {
    char reserved0[256];
    char labels_file_name[256];
    char model_name[256];
    char reserved1[16];
    int32_t allow_fp16;
    int32_t gl_backend;
    char reserved2[12];
    int32_t number_of_threads;
    char reserved3[24];
};
static_assert(sizeof(AiServiceModelConfig) == 832, "model configuration record is 832 bytes");
static_assert(offsetof(AiServiceModelConfig, labels_file_name) == 256, "layout");
static_assert(offsetof(AiServiceModelConfig, model_name) == 512, "layout");
static_assert(offsetof(AiServiceModelConfig, allow_fp16) == 784, "layout");
static_assert(offsetof(AiServiceModelConfig, gl_backend) == 788, "layout");
static_assert(offsetof(AiServiceModelConfig, number_of_threads) == 804, "layout");

}  // namespace telvo_ai_service

namespace ai_service_protocol {

constexpr int kShmKey = 72314;
constexpr int kShmSize = 150552;
constexpr int kShmFlags = 950;  // IPC_CREAT | 0666
constexpr int kHeaderSizeOffset = 0;
constexpr int kHeaderStateOffset = 4;
constexpr int kHeaderReservedOffset = 8;
constexpr int kPayloadOffset = 24;
constexpr int kPayloadSize = 150528;  // 224 x 224 x 3
constexpr int kPictureWidth = 224;
constexpr int kPictureHeight = 224;

constexpr const char* kQueueName = "/ai_service_message_queue";
constexpr int kQueueMaxMessages = 5;
constexpr int kMessageSize = 40;

// Request state word.
constexpr int32_t kStatePosted = 1;
constexpr int32_t kStateDone = 0;
constexpr int32_t kStateFailed = -1;
constexpr int32_t kStateNotInit = -2;
constexpr int32_t kStateNoModel = -3;

constexpr int kModelConfigSize = 832;
constexpr int kPredictResultSize = 48;
constexpr int kPredictRecordsOffset = 4;  // within the predict result
constexpr int kPredictRecordCount = 5;

constexpr const char* kCmdInitAiService = "ai_service_init_ai_service";
constexpr const char* kCmdGetModelConfig = "ai_service_get_model_config";
constexpr const char* kCmdSetModelConfig = "ai_service_set_model_config";
constexpr const char* kCmdSetAiType = "ai_service_set_aitype";
constexpr const char* kCmdLoadModel = "ai_service_load_model";
constexpr const char* kCmdReleaseModel = "ai_service_release_model";
constexpr const char* kCmdImagePredict = "ai_service_image_predict";
constexpr const char* kCmdPredict = "ai_service_predict";
constexpr const char* kCmdStopAiService = "ai_service_stop_ai_service";

static_assert(kPayloadOffset + kPayloadSize == kShmSize, "segment = header + payload");

}  // namespace ai_service_protocol

#endif
