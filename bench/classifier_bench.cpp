// The reference classifier on one 224 x 224 picture: alone, and as the service runs it for an
// "ai_service_predict" (payload check, digest, classification, result written back).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ai_service_protocol.h"
#include "command_handler.h"
#include "picture_capture.h"
#include "picture_data.h"
#include "reference_classifier.h"

namespace {

constexpr int kSceneCount = 5;
const char* const kSceneNames[kSceneCount] = {"sky", "grass", "snow", "cartoon", "noise"};

// The host kit's built-in scenes in their rotation order, and uniform noise as the case with no
// flat areas at all.
const std::vector<uint8_t>& scenePicture(int index) {
    static std::vector<std::vector<uint8_t>> pictures;
    if (pictures.empty()) {
        unsetenv("AIPQ_CAPTURE_SOURCE");
        PictureCapture capture;
        capture.start();
        for (int i = 0; i < kSceneCount - 1; ++i) {
            korvane::ai::PictureData picture = {nullptr, 0, 0, korvane::ai::COLOR_MODE_NONE, 0};
            if (!capture.getPicture(true, &picture)) {
                pictures.clear();
                break;
            }
            pictures.emplace_back(picture.buffer, picture.buffer + ai_service::kPictureBytes);
        }
        capture.stop();
        std::vector<uint8_t> noise(ai_service::kPictureBytes);
        uint32_t state = 12345;
        for (uint8_t& byte : noise) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<uint8_t>(state >> 24);
        }
        pictures.push_back(std::move(noise));
    }
    static const std::vector<uint8_t> none;
    return static_cast<size_t>(index) < pictures.size() && pictures.size() == kSceneCount ? pictures[index]
                                                                                          : none;
}

void BM_ReferenceClassifier(benchmark::State& state) {
    const int scene = static_cast<int>(state.range(0));
    const std::vector<uint8_t>& picture = scenePicture(scene);
    if (picture.empty()) {
        state.SkipWithError("no picture from the built-in scenes");
        return;
    }
    ai_service::ReferenceClassifier classifier;
    ai_service::Predictions predictions;
    std::string error;
    for (auto _ : state) {
        if (!classifier.classify(picture.data(), &predictions, &error)) {
            state.SkipWithError(error.c_str());
            break;
        }
        benchmark::DoNotOptimize(predictions);
    }
    state.SetLabel(std::string(kSceneNames[scene]) + " -> " + ai_service::labelText(predictions[0].label));
}
BENCHMARK(BM_ReferenceClassifier)
    ->ArgName("scene")
    ->DenseRange(0, kSceneCount - 1)
    ->Unit(benchmark::kMicrosecond);

int32_t send(ai_service::CommandHandler& handler, const char* command, uint8_t* payload) {
    char message[ai_service_protocol::kMessageSize] = {};
    std::strncpy(message, command, sizeof(message) - 1);
    return handler.handle(message, sizeof(message), payload);
}

void BM_ServicePredict(benchmark::State& state) {
    const int scene = static_cast<int>(state.range(0));
    const std::vector<uint8_t>& picture = scenePicture(scene);
    if (picture.empty()) {
        state.SkipWithError("no picture from the built-in scenes");
        return;
    }
    ai_service::CommandHandler handler;
    std::vector<uint8_t> payload(ai_service_protocol::kPayloadSize, 0);
    if (send(handler, ai_service_protocol::kCmdInitAiService, payload.data()) !=
            ai_service_protocol::kStateDone ||
        send(handler, ai_service_protocol::kCmdLoadModel, payload.data()) !=
            ai_service_protocol::kStateDone) {
        state.SkipWithError("the service would not initialise or load its model");
        return;
    }
    for (auto _ : state) {
        // A fresh capture each time, as the daemon leaves one in the payload before every request.
        std::memcpy(payload.data(), picture.data(), picture.size());
        if (send(handler, ai_service_protocol::kCmdPredict, payload.data()) !=
            ai_service_protocol::kStateDone) {
            state.SkipWithError("predict failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetLabel(kSceneNames[scene]);
}
BENCHMARK(BM_ServicePredict)->ArgName("scene")->DenseRange(0, kSceneCount - 1)->Unit(benchmark::kMicrosecond);

}  // namespace
