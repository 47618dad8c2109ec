// The service's ONNX backend on a MobileNet-sized network (random weights, built at set-up by
// bench/mobilenet_onnx.py), one 224 x 224 picture per prediction, with 1, 2 and 4 threads.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "onnx_classifier.h"
#include "scene_classifier.h"

namespace {

// Inside the sandbox this is a private tmpfs: the model vanishes with the run.
const char* const kModelDir = "/var/local/aipq_bench_onnx";
constexpr int kOutputs = 1000;

struct Model {
    std::string path;
    std::string labels;
    std::string parameters;  // as the builder counted them
    std::string error;
};

// Built once for all thread counts. Debian's interpreter: the one python3-onnx is installed for.
const Model& model() {
    static Model m;
    static bool built = false;
    if (built) {
        return m;
    }
    built = true;
    if (mkdir(kModelDir, 0755) != 0 && errno != EEXIST) {
        m.error = std::string("cannot create ") + kModelDir;
        return m;
    }
    const std::string path = std::string(kModelDir) + "/mobilenet_sized.onnx";
    const std::string command = "/usr/bin/python3 " AIPQ_SOURCE_DIR "/bench/mobilenet_onnx.py " + path + " " +
                                std::to_string(kOutputs) + " 2>&1";
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        m.error = "cannot run /usr/bin/python3";
        return m;
    }
    char buffer[256];
    while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        out += buffer;
    }
    if (pclose(pipe) != 0) {
        m.error = "building the model failed (scripts/setup.sh installs python3-onnx): " + out;
        return m;
    }
    m.parameters = out.substr(0, out.find('\n'));
    // The first outputs carry the scene label texts, the rest map to none: the service still
    // takes a softmax over all of them.
    m.labels = std::string(kModelDir) + "/labels.txt";
    std::ofstream labels(m.labels);
    for (int i = 0; i < kOutputs; ++i) {
        labels << (i < ai_service::kSceneLabelCount ? ai_service::labelText(i) : "class " + std::to_string(i))
               << '\n';
    }
    m.path = path;
    return m;
}

void BM_OnnxClassifier(benchmark::State& state) {
    const Model& m = model();
    if (m.path.empty()) {
        state.SkipWithError(m.error.c_str());
        return;
    }
    ai_service::OnnxClassifier::Settings settings;
    settings.modelPath = m.path;
    settings.labelsPath = m.labels;
    settings.threads = static_cast<int>(state.range(0));
    std::string error;
    std::unique_ptr<ai_service::OnnxClassifier> classifier =
        ai_service::OnnxClassifier::load(settings, &error);
    if (!classifier) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::vector<uint8_t> picture(ai_service::kPictureBytes);
    uint32_t seed = 12345;
    for (uint8_t& byte : picture) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(seed >> 24);
    }
    ai_service::Predictions predictions;
    for (auto _ : state) {
        if (!classifier->classify(picture.data(), &predictions, &error)) {
            state.SkipWithError(error.c_str());
            break;
        }
        benchmark::DoNotOptimize(predictions);
    }
    state.SetLabel(m.parameters + " parameters, " + std::to_string(classifier->threads()) + " threads, " +
                   classifier->target());
}
// Wall time: the work is spread over OpenCV's threads, the benchmark's own thread mostly waits.
BENCHMARK(BM_OnnxClassifier)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
