// No video path: there is never a picture, and the daemon tries again next cycle. A port grabs a
// 224 x 224 frame, tightly packed with 3 bytes a pixel, and leaves the same bytes in the AI
// service's payload (see common/protocol/ai_service_protocol.h).
#include "dbg_log.h"
#include "picture_capture.h"

struct PictureCapture::Impl {};

PictureCapture::PictureCapture() : m_impl(new Impl) {}

PictureCapture::~PictureCapture() = default;

bool PictureCapture::start() {
    return true;
}

bool PictureCapture::stop() {
    return true;
}

bool PictureCapture::getPicture(bool, korvane::ai::PictureData*) {
    DBG_LOG(DBG_LEVEL_ERROR, "[Platform Adaptation]", "no video path in this platform layer: no picture.\n");
    return false;
}
