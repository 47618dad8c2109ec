// Interim overlay: no DirectFB yet, so create() reports "no overlay" and the daemon runs without.
#include "aipq_display.h"

namespace korvane {
namespace aipq {

std::shared_ptr<AIPQDisplay> AIPQDisplay::create() { return std::shared_ptr<AIPQDisplay>(); }

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
    pthread_mutex_init(&m_mutex, nullptr);
}

AIPQDisplay::~AIPQDisplay() { pthread_mutex_destroy(&m_mutex); }

bool AIPQDisplay::init() { return false; }
bool AIPQDisplay::InitDFBSurface() { return false; }
bool AIPQDisplay::InitDFBGraphic() { return false; }
void AIPQDisplay::setupTextObject(std::string&, int) {}
void AIPQDisplay::setupImageObject(void*, int, int) {}
void AIPQDisplay::Show() {}
void AIPQDisplay::Clear() {}
void AIPQDisplay::DFBDraw() {}
void AIPQDisplay::DFBClear() {}

}  // namespace aipq
}  // namespace korvane
