// Host frame grabber: pictures from a file, a directory, a video or built-in test scenes instead of
// the TV's video path. Source: environment AIPQ_CAPTURE_SOURCE.
#include <errno.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <string>
#include <vector>

#include "dbg_log.h"
#include "osal.h"
#include "picture_capture.h"

#define PC_TAG "[Platform Adaptation]"
#define PC_LOGE(fmt, ...) DBG_LOG(DBG_LEVEL_ERROR, PC_TAG, fmt, ##__VA_ARGS__)
#define PC_LOGN(fmt, ...) DBG_LOG(DBG_LEVEL_NOTICE, PC_TAG, fmt, ##__VA_ARGS__)
#define PC_LOGD(fmt, ...) DBG_LOG(DBG_LEVEL_DEBUG, PC_TAG, fmt, ##__VA_ARGS__)

namespace {

// The AI service's segment: the picture goes to the payload, after the 24-byte header.
constexpr int kShmKey = 72314;
constexpr size_t kShmSize = 150552;
constexpr size_t kPayloadOffset = 24;
constexpr int kWidth = 224;
constexpr int kHeight = 224;
constexpr size_t kPictureBytes = static_cast<size_t>(kWidth) * kHeight * 3;
constexpr int kSyntheticScenes = 4;
const char* const kSyntheticNames[kSyntheticScenes] = {"sky", "grass", "snow", "cartoon"};

uint64_t digest(const uint8_t* data, size_t size) {
    uint64_t hash = 1469598103934665603ULL;  // FNV-1a, as the AI service prints it
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= 1099511628211ULL;
    }
    return hash;
}

// Small deterministic noise source so the built-in scenes come out the same on every run.
struct Lcg {
    uint32_t state;
    int next(int amplitude) {
        state = state * 1664525u + 1013904223u;
        return static_cast<int>((state >> 8) % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude;
    }
};

uint8_t clampByte(int v) {
    return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

// Built-in scenes, RGB: clear cases of what the reference classifier tells apart.
cv::Mat syntheticScene(int index) {
    cv::Mat rgb(kHeight, kWidth, CV_8UC3);
    Lcg noise{static_cast<uint32_t>(index * 7919 + 17)};
    switch (index) {
        case 0: {  // blue sky, brighter towards the horizon, a few soft clouds
            for (int y = 0; y < kHeight; ++y) {
                for (int x = 0; x < kWidth; ++x) {
                    cv::Vec3b& p = rgb.at<cv::Vec3b>(y, x);
                    p[0] = clampByte(40 + y * 90 / kHeight + noise.next(3));
                    p[1] = clampByte(105 + y * 75 / kHeight + noise.next(3));
                    p[2] = clampByte(215 + y * 25 / kHeight + noise.next(3));
                }
            }
            cv::Mat clouds(kHeight, kWidth, CV_8UC1, cv::Scalar(0));
            cv::ellipse(clouds, cv::Point(60, 50), cv::Size(40, 14), 0, 0, 360, cv::Scalar(255), -1);
            cv::ellipse(clouds, cv::Point(165, 95), cv::Size(32, 11), 0, 0, 360, cv::Scalar(255), -1);
            cv::GaussianBlur(clouds, clouds, cv::Size(0, 0), 6);
            for (int y = 0; y < kHeight; ++y) {
                for (int x = 0; x < kWidth; ++x) {
                    int a = clouds.at<uint8_t>(y, x);
                    cv::Vec3b& p = rgb.at<cv::Vec3b>(y, x);
                    for (int c = 0; c < 3; ++c) {
                        p[c] = clampByte((p[c] * (255 - a) + 245 * a) / 255);
                    }
                }
            }
            break;
        }
        case 1:  // grass: textured green, blades as vertical streaks, darker at the bottom
            for (int y = 0; y < kHeight; ++y) {
                for (int x = 0; x < kWidth; ++x) {
                    int streak = ((x * 37) % 11) * 3 - 15;
                    int shade = -y * 30 / kHeight;
                    cv::Vec3b& p = rgb.at<cv::Vec3b>(y, x);
                    p[0] = clampByte(70 + shade / 2 + noise.next(12));
                    p[1] = clampByte(150 + streak + shade + noise.next(22));
                    p[2] = clampByte(45 + shade / 2 + noise.next(10));
                }
            }
            break;
        case 2:  // snow field under a grey-white sky, bluish shadows
            for (int y = 0; y < kHeight; ++y) {
                for (int x = 0; x < kWidth; ++x) {
                    bool shadow = ((x + 2 * y) / 37) % 3 == 0 && y > kHeight / 3;
                    int base = shadow ? 212 : 238;
                    cv::Vec3b& p = rgb.at<cv::Vec3b>(y, x);
                    int n = noise.next(6);
                    p[0] = clampByte(base - 6 + n);
                    p[1] = clampByte(base - 2 + n);
                    p[2] = clampByte(base + 8 + n);
                }
            }
            break;
        default: {  // cartoon: flat saturated colours, hard outlines
            rgb.setTo(cv::Scalar(255, 215, 40));
            cv::rectangle(rgb, cv::Rect(0, 150, kWidth, 74), cv::Scalar(60, 190, 60), -1);
            cv::circle(rgb, cv::Point(70, 80), 40, cv::Scalar(230, 40, 40), -1);
            cv::circle(rgb, cv::Point(70, 80), 40, cv::Scalar(20, 20, 20), 3);
            cv::rectangle(rgb, cv::Rect(130, 60, 70, 70), cv::Scalar(40, 90, 230), -1);
            cv::rectangle(rgb, cv::Rect(130, 60, 70, 70), cv::Scalar(20, 20, 20), 3);
            std::vector<cv::Point> roof = {{120, 60}, {165, 20}, {210, 60}};
            cv::fillConvexPoly(rgb, roof, cv::Scalar(200, 30, 160));
            break;
        }
    }
    return rgb;
}

bool isImageName(const std::filesystem::path& path) {
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    static const char* const kImageExtensions[] = {".png", ".jpg", ".jpeg", ".bmp",  ".ppm",
                                                   ".pgm", ".pnm", ".tif",  ".tiff", ".webp"};
    for (const char* known : kImageExtensions) {
        if (ext == known) {
            return true;
        }
    }
    return false;
}

}  // namespace

struct PictureCapture::Impl {
    enum class Kind { Unset, Synthetic, Image, Directory, Video, Unreadable };

    std::mutex mutex;
    Kind kind = Kind::Unset;
    std::string source;
    std::vector<std::string> files;
    size_t nextFile = 0;
    cv::VideoCapture video;
    double fps = 0.0;
    long frameCount = 0;
    OsalTime playStart = {0, 0};
    unsigned syntheticIndex = 0;
    unsigned captures = 0;
    std::vector<uint8_t> buffer = std::vector<uint8_t>(kPictureBytes, 0);
    int shmId = -1;
    uint8_t* shm = nullptr;
    bool shmFailureLogged = false;

    void configure();
    bool grab(cv::Mat* rgb);
    bool grabVideo(cv::Mat* rgb);
    void publish();
    void detach();
};

void PictureCapture::Impl::configure() {
    const char* env = std::getenv("AIPQ_CAPTURE_SOURCE");
    source = env != nullptr ? env : "";
    files.clear();
    nextFile = 0;
    video.release();
    osalGetUptime(&playStart);
    if (source.empty()) {
        kind = Kind::Synthetic;
        PC_LOGN("capture source: built-in scenes (sky, grass, snow, cartoon in turn).\n");
        return;
    }
    std::error_code ec;
    std::filesystem::file_status status = std::filesystem::status(source, ec);
    if (ec || !std::filesystem::exists(status)) {
        kind = Kind::Unreadable;
        PC_LOGE("capture source %s does not exist.\n", source.c_str());
        return;
    }
    if (std::filesystem::is_directory(status)) {
        for (const auto& entry : std::filesystem::directory_iterator(source, ec)) {
            if (entry.is_regular_file(ec) && isImageName(entry.path())) {
                files.push_back(entry.path().string());
            }
        }
        std::sort(files.begin(), files.end());
        if (files.empty()) {
            kind = Kind::Unreadable;
            PC_LOGE("capture source %s holds no image files.\n", source.c_str());
            return;
        }
        kind = Kind::Directory;
        PC_LOGN("capture source: %zu images of directory %s, in name order.\n", files.size(), source.c_str());
        return;
    }
    if (isImageName(source)) {
        kind = Kind::Image;
        PC_LOGN("capture source: image %s.\n", source.c_str());
        return;
    }
    if (!video.open(source) || !video.isOpened()) {
        kind = Kind::Unreadable;
        PC_LOGE("capture source %s is neither an image nor a readable video.\n", source.c_str());
        return;
    }
    fps = video.get(cv::CAP_PROP_FPS);
    if (!(fps > 0.0 && fps < 1000.0)) {
        fps = 25.0;
    }
    frameCount = static_cast<long>(video.get(cv::CAP_PROP_FRAME_COUNT));
    kind = Kind::Video;
    PC_LOGN("capture source: video %s, %ld frames at %.2f fps, looping.\n", source.c_str(), frameCount, fps);
}

bool PictureCapture::Impl::grabVideo(cv::Mat* rgb) {
    // The frame "on screen" now: play position since start, wrapped at the end of the video.
    OsalTime now;
    osalGetUptime(&now);
    osalSubtractTime(&now, &playStart);
    double elapsed = static_cast<double>(now.seconds) + now.microseconds / 1e6;
    cv::Mat frame;
    if (frameCount > 0) {
        long index = static_cast<long>(elapsed * fps) % frameCount;
        video.set(cv::CAP_PROP_POS_FRAMES, static_cast<double>(index));
        video.read(frame);
    } else if (!video.read(frame)) {
        // Length unknown: play on and start over at the end.
        video.set(cv::CAP_PROP_POS_FRAMES, 0.0);
        video.read(frame);
    }
    if (frame.empty()) {
        PC_LOGE("cannot read a frame from video %s.\n", source.c_str());
        return false;
    }
    cv::cvtColor(frame, *rgb, frame.channels() == 1 ? cv::COLOR_GRAY2RGB : cv::COLOR_BGR2RGB);
    return true;
}

bool PictureCapture::Impl::grab(cv::Mat* rgb) {
    if (kind == Kind::Unset || kind == Kind::Unreadable) {
        // A source that was missing may have appeared since.
        configure();
    }
    switch (kind) {
        case Kind::Synthetic:
            *rgb = syntheticScene(static_cast<int>(syntheticIndex % kSyntheticScenes));
            PC_LOGD("built-in scene %s.\n", kSyntheticNames[syntheticIndex % kSyntheticScenes]);
            ++syntheticIndex;
            return true;
        case Kind::Image:
        case Kind::Directory: {
            std::string path = kind == Kind::Image ? source : files[nextFile];
            if (kind == Kind::Directory) {
                nextFile = (nextFile + 1) % files.size();
            }
            cv::Mat bgr = cv::imread(path, cv::IMREAD_COLOR);
            if (bgr.empty()) {
                PC_LOGE("cannot read image %s.\n", path.c_str());
                return false;
            }
            cv::cvtColor(bgr, *rgb, cv::COLOR_BGR2RGB);
            PC_LOGD("image %s.\n", path.c_str());
            return true;
        }
        case Kind::Video:
            return grabVideo(rgb);
        default:
            PC_LOGE("capture source %s cannot be read: no picture.\n", source.c_str());
            return false;
    }
}

void PictureCapture::Impl::publish() {
    // Created here as well, so that capture works whichever side comes up first.
    int id = shmget(kShmKey, kShmSize, IPC_CREAT | 0666);
    if (id < 0) {
        if (!shmFailureLogged) {
            PC_LOGE("shmget of key %d failed: %s(%d); the AI service will not see the pictures.\n", kShmKey,
                    strerror(errno), errno);
            shmFailureLogged = true;
        }
        return;
    }
    if (id != shmId) {
        detach();
        void* addr = shmat(id, nullptr, 0);
        if (addr == reinterpret_cast<void*>(-1)) {
            PC_LOGE("shmat of key %d failed: %s(%d).\n", kShmKey, strerror(errno), errno);
            return;
        }
        shm = static_cast<uint8_t*>(addr);
        shmId = id;
    }
    shmFailureLogged = false;
    std::memcpy(shm + kPayloadOffset, buffer.data(), kPictureBytes);
}

void PictureCapture::Impl::detach() {
    if (shm != nullptr) {
        shmdt(shm);
        shm = nullptr;
        shmId = -1;
    }
}

PictureCapture::PictureCapture() : m_impl(new Impl) {}

PictureCapture::~PictureCapture() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->video.release();
    m_impl->detach();
}

bool PictureCapture::start() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->configure();
    return m_impl->kind != Impl::Kind::Unreadable;
}

bool PictureCapture::stop() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->video.release();
    m_impl->kind = Impl::Kind::Unset;
    return true;
}

bool PictureCapture::getPicture(bool /*sync*/, korvane::ai::PictureData* picture) {
    if (picture == nullptr) {
        PC_LOGE("picture is NULL.\n");
        return false;
    }
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    cv::Mat rgb;
    if (!m_impl->grab(&rgb)) {
        return false;
    }
    if (rgb.cols != kWidth || rgb.rows != kHeight) {
        cv::Mat scaled;
        cv::resize(rgb, scaled, cv::Size(kWidth, kHeight), 0, 0, cv::INTER_AREA);
        rgb = scaled;
    }
    if (!rgb.isContinuous()) {
        rgb = rgb.clone();
    }
    std::memcpy(m_impl->buffer.data(), rgb.data, kPictureBytes);
    m_impl->publish();
    ++m_impl->captures;
    PC_LOGD("picture %u captured, %016llx.\n", m_impl->captures,
            static_cast<unsigned long long>(digest(m_impl->buffer.data(), kPictureBytes)));
    picture->buffer = m_impl->buffer.data();
    picture->width = kWidth;
    picture->height = kHeight;
    picture->colorMode = korvane::ai::COLOR_MODE_RGB888;
    return true;
}
