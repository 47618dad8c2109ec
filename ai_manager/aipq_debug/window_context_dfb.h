#ifndef AI_MANAGER_AIPQ_DEBUG_WINDOW_CONTEXT_DFB_H
#define AI_MANAGER_AIPQ_DEBUG_WINDOW_CONTEXT_DFB_H

#include <directfb.h>

#include <cstdint>

namespace korvane {

// One transparent, double-buffered window on display layer 1, above the video and the UI.
// Stays empty (null surface) when DirectFB is not available.
class WindowContextDFB {
public:
    static WindowContextDFB* create(int width, int height);

    WindowContextDFB(int width, int height);
    // Window, surface and layer stay with DirectFB until the process ends.
    virtual ~WindowContextDFB() = default;
    WindowContextDFB(const WindowContextDFB&) = delete;
    WindowContextDFB& operator=(const WindowContextDFB&) = delete;

    IDirectFBSurface* getSurface();
    void getLayerSize(int& width, int& height);
    void clear(unsigned char r, unsigned char g, unsigned char b, unsigned char a);

private:
    IDirectFB* m_directfb = nullptr;
    IDirectFBWindow* m_window = nullptr;
    IDirectFBDisplayLayer* m_layer = nullptr;
    IDirectFBSurface* m_surface = nullptr;
    int32_t m_layerWidth = 0;
    int32_t m_layerHeight = 0;
};

}  // namespace korvane

#endif
