#include "window_context_dfb.h"

#include <cstring>

#include "dfb_utils.h"

namespace korvane {

namespace {
// The overlay owns layer 1 so that it never fights the UI on the primary layer.
constexpr DFBDisplayLayerID kOverlayLayer = 1;
}  // namespace

WindowContextDFB* WindowContextDFB::create(int width, int height) {
    OVL_TRACE();
    return new WindowContextDFB(width, height);
}

WindowContextDFB::WindowContextDFB(int width, int height) {
    OVL_TRACE();
    m_directfb = getDFB();
    if (m_directfb == nullptr) {
        return;
    }
    m_directfb->SetCooperativeLevel(m_directfb, DFSCL_NORMAL);

    const DFBDisplayLayerID layerID = kOverlayLayer;
    DFBResult ret = m_directfb->GetDisplayLayer(m_directfb, layerID, &m_layer);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "m_directfb->GetDisplayLayer(m_directfb, layerID, &m_layer)");
        return;
    }
    m_layer->SetCooperativeLevel(m_layer, DLSCL_ADMINISTRATIVE);
    // Without a background the window manager does not repaint under the window: every flip
    // would blend the panel over the last one, and a cleared panel would stay on screen.
    if (m_layer->SetBackgroundMode(m_layer, DLBM_COLOR) != DFB_OK ||
        m_layer->SetBackgroundColor(m_layer, 0, 0, 0, 0) != DFB_OK) {
        OVL_LOGD("layer keeps its own background\n");
    }

    DFBDisplayLayerConfig config;
    std::memset(&config, 0, sizeof(config));
    m_layer->GetConfiguration(m_layer, &config);
    m_layerWidth = config.width;
    m_layerHeight = config.height;
    OVL_LOGD("layer size form [ %d x %d ] \n", m_layerWidth, m_layerHeight);

    DFBWindowDescription desc;
    std::memset(&desc, 0, sizeof(desc));
    desc.flags = static_cast<DFBWindowDescriptionFlags>(DWDESC_CAPS | DWDESC_WIDTH | DWDESC_HEIGHT |
                                                        DWDESC_POSX | DWDESC_POSY | DWDESC_STACKING);
    desc.caps = static_cast<DFBWindowCapabilities>(DWCAPS_ALPHACHANNEL | DWCAPS_DOUBLEBUFFER);
    desc.width = width;
    desc.height = height;
    desc.posx = 0;
    desc.posy = 0;
    desc.stacking = DWSC_UPPER;
    // Filled in but left unflagged on purpose: the window manager picks format and caps itself.
    desc.pixelformat = DSPF_ARGB;
    desc.surface_caps =
        static_cast<DFBSurfaceCapabilities>(DSCAPS_PRIMARY | DSCAPS_VIDEOONLY | DSCAPS_DOUBLE);

    IDirectFBWindow* win = nullptr;
    ret = m_layer->CreateWindow(m_layer, &desc, &win);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "m_layer->CreateWindow(m_layer, &desc, &win)");
        return;
    }
    ret = win->SetOpacity(win, 0xFF);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "win->SetOpacity(win, 0xFF)");
        return;
    }
    IDirectFBSurface* surface = nullptr;
    ret = win->GetSurface(win, &surface);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "win->GetSurface(win, &surface)");
        return;
    }

    // Both buffers of the double-buffered window have to start transparent.
    for (int i = 0; i < 2; ++i) {
        surface->Clear(surface, 0, 0, 0, 0);
        surface->Flip(surface, nullptr, DSFLIP_NONE);
    }

    OVL_LOGD("Win: %p, surface:%p\n", static_cast<void*>(win), static_cast<void*>(surface));
    m_window = win;
    m_surface = surface;
}

IDirectFBSurface* WindowContextDFB::getSurface() {
    return m_surface;
}

void WindowContextDFB::getLayerSize(int& width, int& height) {
    width = m_layerWidth;
    height = m_layerHeight;
}

void WindowContextDFB::clear(unsigned char r, unsigned char g, unsigned char b, unsigned char a) {
    OVL_TRACE();
    if (m_surface != nullptr) {
        m_surface->Clear(m_surface, r, g, b, a);
    }
}

}  // namespace korvane
