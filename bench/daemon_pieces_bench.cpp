// The daemon's own per-cycle pieces: colour swap for the overlay, BMP dump, the valid-scene rule
// and the memory gate's read of /proc/meminfo.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "ai_recognition.h"
#include "ai_service_protocol.h"
#include "mem_monitor.h"
#include "picture_data.h"
#include "picture_store.h"
#include "recognition_manager_base.h"

namespace {

constexpr int kWidth = 224;
constexpr int kHeight = 224;
constexpr size_t kPictureBytes = static_cast<size_t>(kWidth) * kHeight * 3;

std::vector<unsigned char> testPicture() {
    std::vector<unsigned char> picture(kPictureBytes);
    for (size_t i = 0; i < picture.size(); ++i) {
        picture[i] = static_cast<unsigned char>((i * 2654435761u) >> 24);
    }
    return picture;
}

void BM_RGB2BGR(benchmark::State& state) {
    AIRecognition recognition;
    std::vector<unsigned char> picture = testPicture();
    for (auto _ : state) {
        recognition.RGB2BGR(kWidth, kHeight, reinterpret_cast<char*>(picture.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kPictureBytes));
}
BENCHMARK(BM_RGB2BGR)->Unit(benchmark::kMicrosecond);

// The store reads its marker once, when first made; the sandbox's tmpfs holds the dump directory.
void BM_SavePicture(benchmark::State& state) {
    mkdir("/var/local/aipq_dump", 0755);
    std::FILE* marker = std::fopen("/var/local/aipq_dump/aipq_dump_capture_picture_bmp", "wb");
    if (marker != nullptr) {
        std::fclose(marker);
    }
    PictureStore* store = PictureStore::getInstance();
    if (!store->enableDumpPicture()) {
        state.SkipWithError("dumping is off: the marker was not there when the store was made");
        return;
    }
    std::vector<unsigned char> pixels = testPicture();
    korvane::ai::PictureData picture = {pixels.data(), kWidth, kHeight, korvane::ai::COLOR_MODE_RGB888, 0};
    // One name over and over, so that the tmpfs does not fill up.
    char name[] = "image_0.bmp";
    for (auto _ : state) {
        store->savePicture(&picture, name);
    }
    std::remove("/var/local/aipq_dump/image_0.bmp");
}
BENCHMARK(BM_SavePicture)->Unit(benchmark::kMicrosecond);

class SceneRuleOnly : public RecognitionManagerBase {
public:
    int loadModel() override { return 0; }
    int recognitionPicture(korvane::ai::PictureData*, telvo_ai_service::AiPQPredictLabel&,
                           telvo_ai_service::AiPQPredictLabel&,
                           std::vector<telvo_ai_service::TelvoAiPQPredict>*) override {
        return 0;
    }
    int releaseModel() override { return 0; }
    int isValidPicture(korvane::ai::PictureData*) override { return 0; }
    int stopAiService() override { return 0; }
};

// Three answers in turn: a new top replaces the scene, a close second keeps it, a clear new top
// replaces it again; so both outcomes of the rule and its full scan run.
void BM_GetValidScene(benchmark::State& state) {
    using telvo_ai_service::TelvoAiPQPredict;
    SceneRuleOnly manager;
    TelvoAiPQPredict answers[3][ai_service_protocol::kPredictRecordCount] = {
        {{telvo_ai_service::Sky, 0.46f},
         {telvo_ai_service::Grassland, 0.40f},
         {telvo_ai_service::Snow, 0.08f},
         {telvo_ai_service::Building, 0.04f},
         {telvo_ai_service::Indoor, 0.02f}},
        {{telvo_ai_service::Grassland, 0.45f},
         {telvo_ai_service::Sky, 0.42f},
         {telvo_ai_service::Snow, 0.07f},
         {telvo_ai_service::Building, 0.04f},
         {telvo_ai_service::Indoor, 0.02f}},
        {{telvo_ai_service::Tree, 0.81f},
         {telvo_ai_service::Sky, 0.10f},
         {telvo_ai_service::Grassland, 0.05f},
         {telvo_ai_service::Snow, 0.03f},
         {telvo_ai_service::Indoor, 0.01f}},
    };
    int turn = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            manager.getValidScene(answers[turn], ai_service_protocol::kPredictRecordCount));
        turn = turn == 2 ? 0 : turn + 1;
    }
}
BENCHMARK(BM_GetValidScene);

void BM_UpdateMemoryState(benchmark::State& state) {
    MemoryMonitor monitor;
    monitor.setThreshold(120, 90);
    for (auto _ : state) {
        monitor.updateMemoryState();
    }
    state.SetLabel(monitor.getMemoryState() == MemoryStateEnough ? "memory enough" : "memory tight");
}
BENCHMARK(BM_UpdateMemoryState)->Unit(benchmark::kMicrosecond);

}  // namespace
