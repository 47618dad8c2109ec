// Host frame capture: one 224 x 224 picture from the built-in scenes, a 1920 x 1080 video and a large
// JPEG, as the worker asks for it once a period.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <string>

#include "host_platform.h"
#include "picture_capture.h"
#include "picture_data.h"

namespace {

// Inside the sandbox this is a private tmpfs: the inputs vanish with the run.
const char* const kInputDir = "/var/local/aipq_bench_inputs";

constexpr int kVideoWidth = 1920;
constexpr int kVideoHeight = 1080;
constexpr int kVideoFrames = 100;
constexpr double kVideoFps = 25.0;
constexpr int kJpegWidth = 4000;
constexpr int kJpegHeight = 3000;

// A broadcast-like picture: sky gradient, textured ground, objects that move from frame to frame
// and sensor noise, so that the encoders have real work and the decoders real bits.
cv::Mat naturalFrame(int width, int height, int t, cv::RNG& rng) {
    cv::Mat frame(height, width, CV_8UC3);
    const int horizon = height * 11 / 20;
    for (int y = 0; y < height; ++y) {
        cv::Vec3b* row = frame.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x) {
            if (y < horizon) {
                row[x] = cv::Vec3b(static_cast<uchar>(235 - y * 60 / horizon),
                                   static_cast<uchar>(170 + y * 40 / horizon),
                                   static_cast<uchar>(90 + y * 80 / horizon));
            } else {
                const int stripe = ((x / 7 + y / 3) % 9) * 6;
                row[x] = cv::Vec3b(static_cast<uchar>(40 + stripe / 2), static_cast<uchar>(120 + stripe),
                                   static_cast<uchar>(60 + stripe / 3));
            }
        }
    }
    const double s = width / 1920.0;
    for (int i = 0; i < 6; ++i) {
        cv::Point centre(static_cast<int>((200 + i * 290 + t * (6 + i)) * s) % width,
                         static_cast<int>((300 + (i % 3) * 220 + (t * (i + 1)) % 90) * s));
        cv::ellipse(frame, centre,
                    cv::Size(static_cast<int>((60 + i * 12) * s), static_cast<int>((40 + i * 7) * s)),
                    t * 3.0 + i * 20, 0, 360, cv::Scalar(30 + i * 35, 200 - i * 25, 80 + i * 25), cv::FILLED,
                    cv::LINE_AA);
    }
    cv::Mat noise(height, width, CV_16SC3);
    rng.fill(noise, cv::RNG::NORMAL, cv::Scalar::all(0), cv::Scalar::all(5));
    cv::Mat noisy;
    frame.convertTo(noisy, CV_16SC3);
    noisy += noise;
    noisy.convertTo(frame, CV_8UC3);
    return frame;
}

bool ensureInputDir() {
    return mkdir(kInputDir, 0755) == 0 || errno == EEXIST;
}

off_t fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

struct VideoCodec {
    const char* name;
    int fourcc;
    const char* extension;
};

const VideoCodec kCodecs[] = {
    {"mjpeg", cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), ".avi"},
    {"mpeg4", cv::VideoWriter::fourcc('m', 'p', '4', 'v'), ".mp4"},
    {"h264", cv::VideoWriter::fourcc('a', 'v', 'c', '1'), ".mp4"},
};

// Written once per process, on first use; empty when this OpenCV cannot encode the codec.
std::string videoInput(int codecIndex) {
    static std::string paths[3];
    static bool tried[3] = {false, false, false};
    if (tried[codecIndex]) {
        return paths[codecIndex];
    }
    tried[codecIndex] = true;
    if (!ensureInputDir()) {
        return "";
    }
    const VideoCodec& codec = kCodecs[codecIndex];
    std::string path = std::string(kInputDir) + "/video_1080p_" + codec.name + codec.extension;
    cv::VideoWriter writer(path, cv::CAP_FFMPEG, codec.fourcc, kVideoFps,
                           cv::Size(kVideoWidth, kVideoHeight));
    if (!writer.isOpened()) {
        return "";
    }
    cv::RNG rng(7);
    for (int t = 0; t < kVideoFrames; ++t) {
        writer.write(naturalFrame(kVideoWidth, kVideoHeight, t, rng));
    }
    writer.release();
    paths[codecIndex] = path;
    return path;
}

std::string jpegInput() {
    static std::string path;
    static bool tried = false;
    if (tried) {
        return path;
    }
    tried = true;
    if (!ensureInputDir()) {
        return "";
    }
    cv::RNG rng(11);
    std::string candidate = std::string(kInputDir) + "/photo_4000x3000.jpg";
    if (cv::imwrite(candidate, naturalFrame(kJpegWidth, kJpegHeight, 0, rng),
                    {cv::IMWRITE_JPEG_QUALITY, 90})) {
        path = candidate;
    }
    return path;
}

// One capture per iteration through the daemon's own interface; the source is read at start().
void runCapture(benchmark::State& state, const std::string& source) {
    if (source.empty()) {
        unsetenv("AIPQ_CAPTURE_SOURCE");
    } else {
        setenv("AIPQ_CAPTURE_SOURCE", source.c_str(), 1);
    }
    PictureCapture capture;
    if (!capture.start()) {
        state.SkipWithError("capture source cannot be opened");
        return;
    }
    korvane::ai::PictureData picture = {nullptr, 0, 0, korvane::ai::COLOR_MODE_NONE, 0};
    for (auto _ : state) {
        if (!capture.getPicture(true, &picture)) {
            state.SkipWithError("getPicture failed");
            break;
        }
        benchmark::DoNotOptimize(picture.buffer);
        benchmark::ClobberMemory();
    }
    capture.stop();
    unsetenv("AIPQ_CAPTURE_SOURCE");
}

void BM_CaptureBuiltinScene(benchmark::State& state) {
    runCapture(state, "");
}
BENCHMARK(BM_CaptureBuiltinScene)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

// The grabber takes the frame "on screen now" from the play position. Uptime runs 100 times faster
// here, so that successive captures land at unrelated positions in the stream, as captures 5 s
// apart do, instead of on the frame the previous capture has just decoded.
void BM_CaptureVideo1080p(benchmark::State& state) {
    const int codecIndex = static_cast<int>(state.range(0));
    std::string path = videoInput(codecIndex);
    if (path.empty()) {
        state.SkipWithError("this OpenCV cannot write the codec");
        return;
    }
    state.SetLabel(std::string(kCodecs[codecIndex].name) + ", " + std::to_string(fileSize(path) / 1024) +
                   " KiB");
    host::setTimeScale(100.0);
    runCapture(state, path);
    host::setTimeScale(1.0);
}
BENCHMARK(BM_CaptureVideo1080p)
    ->ArgName("codec")
    ->DenseRange(0, 2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_CaptureJpeg4000x3000(benchmark::State& state) {
    std::string path = jpegInput();
    if (path.empty()) {
        state.SkipWithError("cannot write the JPEG input");
        return;
    }
    state.SetLabel(std::to_string(fileSize(path) / 1024) + " KiB");
    runCapture(state, path);
}
BENCHMARK(BM_CaptureJpeg4000x3000)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
