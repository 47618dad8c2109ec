#ifndef AI_MANAGER_AIPQ_DEBUG_AIPQ_DISPLAY_H
#define AI_MANAGER_AIPQ_DEBUG_AIPQ_DISPLAY_H

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <string>

namespace korvane {

class GraphicContext;
class StageAIPQ;
class WindowContextDFB;

namespace aipq {

// The on-screen debug overlay: a grey panel on the right with the last frame and the details text.
class AIPQDisplay {
public:
    // Empty when DirectFB cannot start; the daemon then runs without overlay.
    static std::shared_ptr<AIPQDisplay> create();

    // Throws std::runtime_error("Mutex init error: ...") when the mutex cannot be made.
    AIPQDisplay();
    virtual ~AIPQDisplay();
    AIPQDisplay(const AIPQDisplay&) = delete;
    AIPQDisplay& operator=(const AIPQDisplay&) = delete;

    bool init();
    bool InitDFBSurface();
    bool InitDFBGraphic();
    void setupTextObject(std::string& text, int lineSpacing);
    // The buffer is 3 bytes a pixel and must stay valid while it is shown.
    void setupImageObject(void* buffer, int width, int height);
    // Must be called before the buffer handed to setupImageObject is freed.
    void removeImageObject();
    void Show();
    void Clear();
    // Not locked; Show and Clear are the locked entry points.
    void DFBDraw();
    void DFBClear();

    double scale() const { return m_scale; }

private:
    void blitPanel();

    GraphicContext* m_graphicContext;
    StageAIPQ* m_stage;
    WindowContextDFB* m_window;
    double m_scale;  // screen pixels per layer pixel
    int32_t m_panelX;
    int32_t m_panelY;
    int32_t m_panelWidth;
    int32_t m_panelHeight;
    int32_t m_windowWidth;
    int32_t m_windowHeight;
    pthread_mutex_t m_mutex;
};

}  // namespace aipq
}  // namespace korvane

#endif
