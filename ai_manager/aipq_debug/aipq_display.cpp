#include "aipq_display.h"

#include <directfb.h>

#include <cstring>
#include <stdexcept>

#include "dfb_entry.h"
#include "dfb_utils.h"
#include "graphic_context.h"
#include "overlay_log.h"
#include "stage_aipq.h"
#include "unique_lock.h"
#include "window_context_dfb.h"

namespace korvane {
namespace aipq {

std::shared_ptr<AIPQDisplay> AIPQDisplay::create() {
    OVL_TRACE();
    if (dfbInit(nullptr, nullptr) != DFB_OK) {
        OVL_LOGE("Failed to Init DFB.\n");
        return std::shared_ptr<AIPQDisplay>();
    }
    // Where DirectFB cannot start the answer stays the same; it was logged when first found out.
    if (!dfbAvailable()) {
        return std::shared_ptr<AIPQDisplay>();
    }

    std::shared_ptr<AIPQDisplay> display;
    try {
        display = std::make_shared<AIPQDisplay>();
    } catch (const std::runtime_error& e) {
        OVL_LOGE("%s\n", e.what());
        return std::shared_ptr<AIPQDisplay>();
    }
    if (!display->init()) {
        OVL_LOGE("Failed to create display.\n");
        return std::shared_ptr<AIPQDisplay>();
    }
    return display;
}

AIPQDisplay::AIPQDisplay()
    : m_graphicContext(nullptr),
      m_stage(nullptr),
      m_window(nullptr),
      m_scale(1.0),
      m_panelX(800),
      m_panelY(0),
      m_panelWidth(1000),
      m_panelHeight(1080),
      m_windowWidth(1920),
      m_windowHeight(1080) {
    OVL_TRACE();
    int rc = pthread_mutex_init(&m_mutex, nullptr);
    if (rc != 0) {
        throw std::runtime_error(std::string("Mutex init error: ") + std::strerror(rc));
    }
}

AIPQDisplay::~AIPQDisplay() {
    OVL_TRACE();
    delete m_stage;
    m_stage = nullptr;
    // No finalize: DirectFB keeps canvas and font until the process ends.
    destroyGraphicContext(m_graphicContext);
    m_graphicContext = nullptr;
    delete m_window;
    m_window = nullptr;
    pthread_mutex_destroy(&m_mutex);
}

bool AIPQDisplay::init() {
    OVL_TRACE();
    if (!InitDFBSurface()) {
        OVL_LOGD("init: InitDFBSurface fail \n");
        return false;
    }
    if (!InitDFBGraphic()) {
        OVL_LOGD("init: InitDFBGraphic fail\n");
        return false;
    }
    return true;
}

bool AIPQDisplay::InitDFBSurface() {
    OVL_TRACE();
    m_window = WindowContextDFB::create(m_windowWidth, m_windowHeight);
    if (m_window == nullptr || m_window->getSurface() == nullptr) {
        OVL_LOGE("ERROR creating window surface\n");
        return false;
    }

    // The panel is laid out for 1920 x 1080; a 1280 x 720 layer shows it scaled down. Any other
    // size keeps the full-size layout and DirectFB clips what does not fit.
    int width = 0;
    int height = 0;
    m_window->getLayerSize(width, height);
    if (width == 1920 && height == 1080) {
        m_scale = 1.0;
    } else if (width == 1280 && height == 720) {
        m_scale = 1.5;
    }
    return true;
}

bool AIPQDisplay::InitDFBGraphic() {
    OVL_TRACE();
    m_graphicContext = createGraphicContext();
    if (!m_graphicContext->initialize()) {
        return false;
    }
    m_graphicContext->setContentSize(m_panelWidth, m_panelHeight);

    m_stage = new StageAIPQ();
    m_stage->setGraphicContext(m_graphicContext);
    m_stage->init();
    return true;
}

void AIPQDisplay::setupTextObject(std::string& text, int lineSpacing) {
    OVL_TRACE();
    if (m_stage != nullptr) {
        m_stage->setupTextObject(text, lineSpacing);
    }
}

void AIPQDisplay::setupImageObject(void* buffer, int width, int height) {
    OVL_TRACE();
    if (m_stage != nullptr) {
        m_stage->setupImageObject(buffer, width, height);
    }
}

void AIPQDisplay::removeImageObject() {
    OVL_TRACE();
    if (m_stage != nullptr) {
        m_stage->removeImageObject();
    }
}

void AIPQDisplay::Show() {
    OVL_TRACE();
    UniqueLock lock(&m_mutex);
    DFBDraw();
}

void AIPQDisplay::Clear() {
    OVL_TRACE();
    UniqueLock lock(&m_mutex);
    DFBClear();
}

void AIPQDisplay::DFBDraw() {
    OVL_TRACE();
    if (m_graphicContext == nullptr || m_stage == nullptr) {
        return;
    }
    m_graphicContext->clear(0, 0, 0, 0);
    m_stage->doRender();
    blitPanel();
}

void AIPQDisplay::DFBClear() {
    OVL_TRACE();
    if (m_graphicContext == nullptr) {
        return;
    }
    // A cleared canvas blitted without blending makes the panel area transparent again.
    m_graphicContext->clear(0, 0, 0, 0);
    blitPanel();
}

void AIPQDisplay::blitPanel() {
    m_graphicContext->blitTo(m_window, static_cast<int>(m_panelX / m_scale),
                             static_cast<int>(m_panelY / m_scale), static_cast<int>(m_panelWidth / m_scale),
                             static_cast<int>(m_panelHeight / m_scale));
}

}  // namespace aipq
}  // namespace korvane
