#ifndef AIPQ_PROTOCOL_AI_SERVICE_PROTOCOL_H
#define AIPQ_PROTOCOL_AI_SERVICE_PROTOCOL_H

#include <cstddef>
#include <cstdint>

// The wire between ai_manager and the AI service process: a System V segment with a request
// header and one picture-sized payload, and a POSIX queue carrying one command string a request.
// The daemon, the capture that fills the payload and the service all take it from here.

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

constexpr int kLabelCount = telvo_ai_service::Invalid + 1;
// By label value: what both ends print, and how a model's labels file names its outputs.
inline constexpr const char* kLabelTexts[kLabelCount] = {
    "Cartoon", "Soccerball", "Sunflowers",  "Sky",       "Daisy",    "Fruite",  "Tree",
    "Tulips",  "Cat",        "Performance", "Dandelion", "Building", "Food",    "Dog",
    "Roses",   "Grassland",  "Face",        "Snow",      "Indoor",   "Invalid",
};

// The picture in the payload: 224 x 224, 3 bytes a pixel, red-green-blue, rows packed.
constexpr int kPictureWidth = 224;
constexpr int kPictureHeight = 224;
constexpr size_t kPictureBytes = static_cast<size_t>(kPictureWidth) * kPictureHeight * 3;

constexpr int kShmKey = 72314;
constexpr int kShmFlags = 950;  // IPC_CREAT | 0666
constexpr int kHeaderSizeOffset = 0;
constexpr int kHeaderStateOffset = 4;
constexpr int kHeaderReservedOffset = 8;
constexpr int kPayloadOffset = 24;
constexpr int kPayloadSize = static_cast<int>(kPictureBytes);
constexpr int kShmSize = kPayloadOffset + kPayloadSize;
static_assert(kShmSize == 150552, "segment size both ends were built with");

constexpr const char* kQueueName = "/ai_service_message_queue";
constexpr int kQueueMaxMessages = 5;
constexpr int kMessageSize = 40;

// Request state word.
constexpr int32_t kStatePosted = 1;
constexpr int32_t kStateDone = 0;
constexpr int32_t kStateFailed = -1;
constexpr int32_t kStateNotInit = -2;
constexpr int32_t kStateNoModel = -3;

// Results, at the start of the payload.
constexpr int kModelConfigSize = static_cast<int>(sizeof(telvo_ai_service::AiServiceModelConfig));
constexpr int kPredictResultSize = 48;
constexpr int kPredictRecordsOffset = 4;  // after the record count
constexpr int kPredictRecordCount = 5;
static_assert(kPredictRecordsOffset + kPredictRecordCount * sizeof(telvo_ai_service::TelvoAiPQPredict) <=
                  kPredictResultSize,
              "prediction records fit the result");

constexpr const char* kCmdInitAiService = "ai_service_init_ai_service";
constexpr const char* kCmdGetModelConfig = "ai_service_get_model_config";
constexpr const char* kCmdSetModelConfig = "ai_service_set_model_config";
constexpr const char* kCmdSetAiType = "ai_service_set_aitype";
constexpr const char* kCmdLoadModel = "ai_service_load_model";
constexpr const char* kCmdReleaseModel = "ai_service_release_model";
constexpr const char* kCmdImagePredict = "ai_service_image_predict";
constexpr const char* kCmdPredict = "ai_service_predict";
constexpr const char* kCmdStopAiService = "ai_service_stop_ai_service";

// Fingerprint of a picture (64-bit FNV-1a) that the capture and the service both log, so a
// frame can be followed from one log to the other.
inline uint64_t pictureDigest(const uint8_t* data, size_t size) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

}  // namespace ai_service_protocol

#endif
