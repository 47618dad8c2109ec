// Host frame grabber: built-in test scenes, or pictures from an image, a directory or a video
// (environment AIPQ_CAPTURE_SOURCE) instead of the TV's video path, left in the AI service's
// payload as well.
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "ai_service_protocol.h"
#include "dbg_log.h"
#include "file_source.h"
#include "osal.h"
#include "picture_capture.h"
#include "segment_publisher.h"
#include "service_notify.h"
#include "synthetic_scenes.h"

#define PC_TAG "[Platform Adaptation]"
#define PC_LOGE(fmt, ...) DBG_LOG(DBG_LEVEL_ERROR, PC_TAG, fmt, ##__VA_ARGS__)
#define PC_LOGN(fmt, ...) DBG_LOG(DBG_LEVEL_NOTICE, PC_TAG, fmt, ##__VA_ARGS__)
#define PC_LOGD(fmt, ...) DBG_LOG(DBG_LEVEL_DEBUG, PC_TAG, fmt, ##__VA_ARGS__)

namespace proto = ai_service_protocol;

struct PictureCapture::Impl {
    enum class Kind { Unset, Synthetic, Files, Unreadable };

    std::mutex mutex;
    Kind kind = Kind::Unset;
    std::string source;
    OsalTime playStart = {0, 0};
    unsigned syntheticIndex = 0;
    unsigned captures = 0;
    std::vector<uint8_t> buffer = std::vector<uint8_t>(proto::kPictureBytes, 0);
    host::FileSource files;
    host::SegmentPublisher publisher;

    void configure();
    bool grab();
};

void PictureCapture::Impl::configure() {
    const char* env = std::getenv("AIPQ_CAPTURE_SOURCE");
    source = env != nullptr ? env : "";
    files.close();
    osalGetUptime(&playStart);
    if (source.empty()) {
        kind = Kind::Synthetic;
        PC_LOGN("capture source: built-in scenes (sky, grass, snow, cartoon in turn).\n");
        return;
    }
    std::string text;
    if (!files.open(source, &text)) {
        kind = Kind::Unreadable;
        PC_LOGE("%s\n", text.c_str());
        return;
    }
    kind = Kind::Files;
    PC_LOGN("capture source: %s\n", text.c_str());
}

bool PictureCapture::Impl::grab() {
    if (kind == Kind::Unset || kind == Kind::Unreadable) {
        // A source or plug-in that was missing may have appeared since.
        configure();
    }
    switch (kind) {
        case Kind::Synthetic: {
            int scene = static_cast<int>(syntheticIndex % host::kSyntheticSceneCount);
            host::paintSyntheticScene(scene, buffer.data());
            PC_LOGD("built-in scene %s.\n", host::syntheticSceneName(scene));
            ++syntheticIndex;
            return true;
        }
        case Kind::Files: {
            // The frame "on screen" now is the one at the time since start, on the osal clock.
            OsalTime now;
            osalGetUptime(&now);
            osalSubtractTime(&now, &playStart);
            int64_t positionUs = static_cast<int64_t>(now.seconds) * 1000000 + now.microseconds;
            std::string text;
            if (!files.read(buffer.data(), positionUs, &text)) {
                PC_LOGE("%s\n", text.c_str());
                return false;
            }
            PC_LOGD("%s\n", text.c_str());
            return true;
        }
        default:
            PC_LOGE("capture source %s cannot be read: no picture.\n", source.c_str());
            return false;
    }
}

PictureCapture::PictureCapture() : m_impl(new Impl) {}

// The daemon deletes its capture first when it tears down, also on the path without run().
PictureCapture::~PictureCapture() {
    host::notifyLeavingWithoutRun();
}

bool PictureCapture::start() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->configure();
    return m_impl->kind != Impl::Kind::Unreadable;
}

bool PictureCapture::stop() {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->files.close();
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
    m_impl->publisher.publish(m_impl->buffer.data());
    ++m_impl->captures;
    PC_LOGD(
        "picture %u captured, %016llx.\n", m_impl->captures,
        static_cast<unsigned long long>(proto::pictureDigest(m_impl->buffer.data(), proto::kPictureBytes)));
    picture->buffer = m_impl->buffer.data();
    picture->width = proto::kPictureWidth;
    picture->height = proto::kPictureHeight;
    picture->colorMode = korvane::ai::COLOR_MODE_RGB888;
    return true;
}
