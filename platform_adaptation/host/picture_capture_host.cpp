// Host frame grabber: built-in test scenes, or pictures from an image, a directory or a video
// (environment AIPQ_CAPTURE_SOURCE) instead of the TV's video path. Files are read by a plug-in
// loaded only when such a source is set: the image and video libraries it needs weigh some 60 MiB
// of mappings that a daemon on the built-in scenes must not carry.
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "ai_service_protocol.h"
#include "capture_files/capture_files_plugin.h"
#include "dbg_log.h"
#include "osal.h"
#include "picture_capture.h"

#define PC_TAG "[Platform Adaptation]"
#define PC_LOGE(fmt, ...) DBG_LOG(DBG_LEVEL_ERROR, PC_TAG, fmt, ##__VA_ARGS__)
#define PC_LOGN(fmt, ...) DBG_LOG(DBG_LEVEL_NOTICE, PC_TAG, fmt, ##__VA_ARGS__)
#define PC_LOGD(fmt, ...) DBG_LOG(DBG_LEVEL_DEBUG, PC_TAG, fmt, ##__VA_ARGS__)

#ifndef AIPQ_CAPTURE_PLUGIN_FILE
#define AIPQ_CAPTURE_PLUGIN_FILE "libaipq_capture_files.so"
#endif

namespace {

namespace proto = ai_service_protocol;

constexpr int kWidth = proto::kPictureWidth;
constexpr int kHeight = proto::kPictureHeight;
constexpr size_t kPictureBytes = proto::kPictureBytes;
constexpr int kSyntheticScenes = 4;
const char* const kSyntheticNames[kSyntheticScenes] = {"sky", "grass", "snow", "cartoon"};
constexpr size_t kTextSize = 512;

static_assert(AIPQ_CAPTURE_FILES_WIDTH == kWidth && AIPQ_CAPTURE_FILES_HEIGHT == kHeight,
              "the plug-in delivers the picture size the AI service reads");

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

void setPixel(uint8_t* p, int r, int g, int b) {
    p[0] = clampByte(r);
    p[1] = clampByte(g);
    p[2] = clampByte(b);
}

// Coverage 0..255 of a soft-edged ellipse: a cloud, opaque inside and fading over some 12 pixels.
// Integer only, like every scene, so they come out the same whatever the floating-point code.
int cloudCover(int x, int y, int cx, int cy, int ax, int ay) {
    // 1 - d^2 of the normalised distance d, in 1/4096: about 2 (1 - d) near the rim.
    int dx = x - cx;
    int dy = y - cy;
    int inside = std::max(-4096, 4096 - (dx * dx * 4096 / (ax * ax) + dy * dy * 4096 / (ay * ay)));
    // Half-cover on the rim, full some 6 pixels inside it, none 6 pixels outside.
    int cover = 128 + inside * ay * 255 / (4096 * 24);
    return cover < 0 ? 0 : (cover > 255 ? 255 : cover);
}

// Cartoon: flat saturated shapes with hard dark outlines, painted back to front.
void cartoonPixel(int x, int y, uint8_t* p) {
    int r = 255, g = 215, b = 40;  // yellow backdrop
    if (y >= 150) {
        r = 60, g = 190, b = 60;  // lawn
    }
    int dx = x - 70;
    int dy = y - 80;
    int d2 = dx * dx + dy * dy;
    if (d2 <= 40 * 40) {
        r = 230, g = 40, b = 40;  // ball
    }
    if (d2 >= 38 * 38 && d2 <= 42 * 42) {
        r = 20, g = 20, b = 20;
    }
    if (x >= 129 && x <= 200 && y >= 59 && y <= 130) {  // house with a 3-pixel outline
        bool outline = x <= 131 || x >= 198 || y <= 61 || y >= 128;
        r = outline ? 20 : 40, g = outline ? 20 : 90, b = outline ? 20 : 230;
    }
    // Roof: the triangle (120,60) (165,20) (210,60).
    if (y >= 20 && y <= 60 && 40 * (x - 120) >= 45 * (60 - y) && 40 * (210 - x) >= 45 * (60 - y)) {
        r = 200, g = 30, b = 160;
    }
    setPixel(p, r, g, b);
}

// Built-in scenes, RGB: clear cases of what the reference classifier tells apart.
void syntheticScene(int index, uint8_t* rgb) {
    Lcg noise{static_cast<uint32_t>(index * 7919 + 17)};
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            uint8_t* p = rgb + (static_cast<size_t>(y) * kWidth + x) * 3;
            switch (index) {
                case 0: {  // blue sky, brighter towards the horizon, two soft clouds
                    int r = 40 + y * 90 / kHeight + noise.next(3);
                    int g = 105 + y * 75 / kHeight + noise.next(3);
                    int b = 215 + y * 25 / kHeight + noise.next(3);
                    int a = std::max(cloudCover(x, y, 60, 50, 40, 14), cloudCover(x, y, 165, 95, 32, 11));
                    setPixel(p, (r * (255 - a) + 245 * a) / 255, (g * (255 - a) + 245 * a) / 255,
                             (b * (255 - a) + 245 * a) / 255);
                    break;
                }
                case 1: {  // grass: textured green, blades as vertical streaks, darker at the bottom
                    int streak = ((x * 37) % 11) * 3 - 15;
                    int shade = -y * 30 / kHeight;
                    int r = 70 + shade / 2 + noise.next(12);
                    int g = 150 + streak + shade + noise.next(22);
                    int b = 45 + shade / 2 + noise.next(10);
                    setPixel(p, r, g, b);
                    break;
                }
                case 2: {  // snow field under a grey-white sky, bluish shadows
                    bool shadow = ((x + 2 * y) / 37) % 3 == 0 && y > kHeight / 3;
                    int base = shadow ? 212 : 238;
                    int n = noise.next(6);
                    setPixel(p, base - 6 + n, base - 2 + n, base + 8 + n);
                    break;
                }
                default:
                    cartoonPixel(x, y, p);
                    break;
            }
        }
    }
}

std::string directoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

}  // namespace

struct PictureCapture::Impl {
    enum class Kind { Unset, Synthetic, Files, Unreadable };

    std::mutex mutex;
    Kind kind = Kind::Unset;
    std::string source;
    OsalTime playStart = {0, 0};
    unsigned syntheticIndex = 0;
    unsigned captures = 0;
    std::vector<uint8_t> buffer = std::vector<uint8_t>(kPictureBytes, 0);
    bool shmFailureLogged = false;

    void* plugin = nullptr;
    AipqCaptureFilesOpenFn pluginOpen = nullptr;
    AipqCaptureFilesReadFn pluginRead = nullptr;
    AipqCaptureFilesCloseFn pluginClose = nullptr;
    AipqCaptureFiles* files = nullptr;

    void configure();
    bool loadPlugin(std::string* error);
    bool tryPlugin(const std::string& path, std::string* error);
    void closeFiles();
    bool grab();
    void publish();
};

bool PictureCapture::Impl::tryPlugin(const std::string& path, std::string* error) {
    // Never unloaded: image and video libraries are not made to be torn down inside a process.
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) {
        const char* why = dlerror();
        *error = why != nullptr ? why : path + ": cannot be loaded";
        return false;
    }
    auto abi = reinterpret_cast<AipqCaptureFilesAbiFn>(dlsym(library, "aipq_capture_files_abi"));
    auto open = reinterpret_cast<AipqCaptureFilesOpenFn>(dlsym(library, "aipq_capture_files_open"));
    auto read = reinterpret_cast<AipqCaptureFilesReadFn>(dlsym(library, "aipq_capture_files_read"));
    auto close = reinterpret_cast<AipqCaptureFilesCloseFn>(dlsym(library, "aipq_capture_files_close"));
    if (abi == nullptr || open == nullptr || read == nullptr || close == nullptr) {
        *error = path + " is not a capture plug-in";
        dlclose(library);
        return false;
    }
    if (abi() != AIPQ_CAPTURE_FILES_ABI) {
        *error = path + " is a capture plug-in of interface " + std::to_string(abi()) + ", not " +
                 std::to_string(AIPQ_CAPTURE_FILES_ABI);
        dlclose(library);
        return false;
    }
    plugin = library;
    pluginOpen = open;
    pluginRead = read;
    pluginClose = close;
    PC_LOGN("capture plug-in %s loaded.\n", path.c_str());
    return true;
}

bool PictureCapture::Impl::loadPlugin(std::string* error) {
    if (plugin != nullptr) {
        return true;
    }
    const char* env = std::getenv("AIPQ_CAPTURE_PLUGIN");
    if (env != nullptr && *env != '\0') {
        return tryPlugin(env, error);
    }
    // Installed as the build lays it out: binaries in bin/ (tests in tests/), modules in lib/.
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        *error = std::string("cannot tell where this program lives: ") + strerror(errno);
        return false;
    }
    self[n] = '\0';
    std::string dir = directoryOf(self);
    const std::string candidates[] = {dir + "/../lib/" AIPQ_CAPTURE_PLUGIN_FILE,
                                      dir + "/" AIPQ_CAPTURE_PLUGIN_FILE};
    for (const std::string& candidate : candidates) {
        if (access(candidate.c_str(), F_OK) == 0) {
            return tryPlugin(candidate, error);
        }
    }
    *error = std::string(AIPQ_CAPTURE_PLUGIN_FILE " found neither in ") + dir + "/../lib nor in " + dir +
             " (AIPQ_CAPTURE_PLUGIN names it elsewhere)";
    return false;
}

void PictureCapture::Impl::closeFiles() {
    if (files != nullptr) {
        pluginClose(files);
        files = nullptr;
    }
}

void PictureCapture::Impl::configure() {
    const char* env = std::getenv("AIPQ_CAPTURE_SOURCE");
    source = env != nullptr ? env : "";
    closeFiles();
    osalGetUptime(&playStart);
    if (source.empty()) {
        kind = Kind::Synthetic;
        PC_LOGN("capture source: built-in scenes (sky, grass, snow, cartoon in turn).\n");
        return;
    }
    std::string error;
    if (!loadPlugin(&error)) {
        kind = Kind::Unreadable;
        PC_LOGE("capture source %s needs the capture plug-in: %s.\n", source.c_str(), error.c_str());
        return;
    }
    char text[kTextSize] = {0};
    files = pluginOpen(source.c_str(), text, sizeof(text));
    if (files == nullptr) {
        kind = Kind::Unreadable;
        PC_LOGE("%s\n", text);
        return;
    }
    kind = Kind::Files;
    PC_LOGN("capture source: %s\n", text);
}

bool PictureCapture::Impl::grab() {
    if (kind == Kind::Unset || kind == Kind::Unreadable) {
        // A source or plug-in that was missing may have appeared since.
        configure();
    }
    switch (kind) {
        case Kind::Synthetic:
            syntheticScene(static_cast<int>(syntheticIndex % kSyntheticScenes), buffer.data());
            PC_LOGD("built-in scene %s.\n", kSyntheticNames[syntheticIndex % kSyntheticScenes]);
            ++syntheticIndex;
            return true;
        case Kind::Files: {
            // The frame "on screen" now is the one at the time since start, on the osal clock.
            OsalTime now;
            osalGetUptime(&now);
            osalSubtractTime(&now, &playStart);
            int64_t positionUs = static_cast<int64_t>(now.seconds) * 1000000 + now.microseconds;
            char text[kTextSize] = {0};
            if (pluginRead(files, buffer.data(), positionUs, text, sizeof(text)) == 0) {
                PC_LOGE("%s\n", text);
                return false;
            }
            PC_LOGD("%s\n", text);
            return true;
        }
        default:
            PC_LOGE("capture source %s cannot be read: no picture.\n", source.c_str());
            return false;
    }
}

void PictureCapture::Impl::publish() {
    // Created here as well, so that capture works whichever side comes up first.
    int id = shmget(proto::kShmKey, proto::kShmSize, proto::kShmFlags);
    if (id < 0) {
        if (!shmFailureLogged) {
            PC_LOGE("shmget of key %d failed: %s(%d); the AI service will not see the pictures.\n",
                    proto::kShmKey, strerror(errno), errno);
            shmFailureLogged = true;
        }
        return;
    }
    // Attached for the copy only: the daemon's service client maps the same pages for good, and a
    // second standing mapping would count them twice in the daemon's resident set.
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        PC_LOGE("shmat of key %d failed: %s(%d).\n", proto::kShmKey, strerror(errno), errno);
        return;
    }
    shmFailureLogged = false;
    std::memcpy(static_cast<uint8_t*>(addr) + proto::kPayloadOffset, buffer.data(), kPictureBytes);
    shmdt(addr);
}

PictureCapture::PictureCapture() : m_impl(new Impl) {}

PictureCapture::~PictureCapture() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->closeFiles();
    if (m_impl->plugin != nullptr) {
        dlclose(m_impl->plugin);
    }
}

bool PictureCapture::start() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->configure();
    return m_impl->kind != Impl::Kind::Unreadable;
}

bool PictureCapture::stop() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->closeFiles();
    m_impl->kind = Impl::Kind::Unset;
    return true;
}

bool PictureCapture::getPicture(bool /*sync*/, korvane::ai::PictureData* picture) {
    if (picture == nullptr) {
        PC_LOGE("picture is NULL.\n");
        return false;
    }
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (!m_impl->grab()) {
        return false;
    }
    m_impl->publish();
    ++m_impl->captures;
    PC_LOGD("picture %u captured, %016llx.\n", m_impl->captures,
            static_cast<unsigned long long>(proto::pictureDigest(m_impl->buffer.data(), kPictureBytes)));
    picture->buffer = m_impl->buffer.data();
    picture->width = kWidth;
    picture->height = kHeight;
    picture->colorMode = korvane::ai::COLOR_MODE_RGB888;
    return true;
}
