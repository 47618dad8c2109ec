#include "graphic_context_dfb.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cstring>
#include <vector>

#include "dfb_utils.h"
#include "image_context_dfb.h"
#include "window_context_dfb.h"

namespace korvane {

GraphicContext* createGraphicContext() {
    return GraphicContextDFB::create();
}

void destroyGraphicContext(GraphicContext* context) {
    // Every context comes from createGraphicContext, hence the downcast.
    delete static_cast<GraphicContextDFB*>(context);
}

GraphicContextDFB* GraphicContextDFB::create() {
    OVL_TRACE();
    return new GraphicContextDFB();
}

bool GraphicContextDFB::initialize() {
    OVL_TRACE();
    m_DFB = getDFB();
    if (m_DFB == nullptr) {
        return false;
    }
    OVL_LOGD("DirectFBInit ...\n");
    m_DFB->SetCooperativeLevel(m_DFB, DFSCL_NORMAL);
    return true;
}

void GraphicContextDFB::finalize() {
    OVL_TRACE();
    if (m_font != nullptr) {
        m_font->Release(m_font);
    }
    m_font = nullptr;
    if (m_canvas != nullptr) {
        m_canvas->Release(m_canvas);
        // Only the root pointer is dropped; the context is finished after this.
        m_DFB = nullptr;
    }
}

void GraphicContextDFB::setContentSize(int width, int height) {
    OVL_TRACE();
    if (width == m_width && height == m_height && m_canvas != nullptr) {
        return;
    }
    if (width != m_width || height != m_height) {
        m_width = width;
        m_height = height;
        if (m_canvas != nullptr) {
            m_canvas->Release(m_canvas);
            m_canvas = nullptr;
        }
    }
    if (m_DFB == nullptr) {
        OVL_LOGE("Error creating canvas\n");
        return;
    }

    DFBSurfaceDescription desc = describeSurface(width, height, DSPF_ARGB, DSCAPS_PREMULTIPLIED);

    OVL_LOGD("Create DFB Surface  ...\n");
    IDirectFBSurface* surface = nullptr;
    if (m_DFB->CreateSurface(m_DFB, &desc, &surface) != DFB_OK || surface == nullptr) {
        OVL_LOGE("Error creating canvas\n");
        return;
    }
    m_canvas = surface;
}

void GraphicContextDFB::clear(unsigned char r, unsigned char g, unsigned char b, unsigned char a) {
    OVL_TRACE();
    if (m_canvas == nullptr) {
        OVL_LOGD("No canvas to clear\n");
        return;
    }
    m_canvas->Clear(m_canvas, r, g, b, a);
}

bool GraphicContextDFB::drawImage(ImageContext* image, int x, int y, int w, int h) {
    OVL_TRACE();
    auto* dfbImage = dynamic_cast<ImageContextDFB*>(image);
    IDirectFBSurface* source = dfbImage != nullptr ? dfbImage->getSurface() : nullptr;
    if (source == nullptr || m_canvas == nullptr) {
        return false;
    }
    m_canvas->SetBlittingFlags(m_canvas, DSBLIT_BLEND_ALPHACHANNEL);
    m_canvas->SetSrcBlendFunction(m_canvas, DSBF_ONE);
    m_canvas->SetDstBlendFunction(m_canvas, DSBF_INVSRCALPHA);
    DFBRectangle dest = {x, y, w, h};
    m_canvas->StretchBlit(m_canvas, source, nullptr, &dest);
    return true;
}

bool GraphicContextDFB::drawRect(int x, int y, int w, int h, unsigned char r, unsigned char g,
                                 unsigned char b, unsigned char a) {
    OVL_TRACE();
    if (m_canvas == nullptr) {
        OVL_LOGE("No content to render.\n");
        return false;
    }
    m_canvas->SetColor(m_canvas, r, g, b, a);
    m_canvas->DrawRectangle(m_canvas, x, y, w, h);
    return true;
}

bool GraphicContextDFB::fillRect(int x, int y, int w, int h, unsigned char r, unsigned char g,
                                 unsigned char b, unsigned char a) {
    OVL_TRACE();
    if (m_canvas == nullptr) {
        return false;
    }
    m_canvas->SetColor(m_canvas, r, g, b, a);
    m_canvas->FillRectangle(m_canvas, x, y, w, h);
    return true;
}

bool GraphicContextDFB::loadFont(std::string path, int size) {
    OVL_TRACE();
    if (m_font != nullptr) {
        return true;
    }
    if (m_DFB == nullptr) {
        OVL_LOGE("Error creating Font.  %s\n", path.c_str());
        return false;
    }
    OVL_LOGD("set font.\n");

    DFBFontDescription desc;
    std::memset(&desc, 0, sizeof(desc));
    desc.flags = static_cast<DFBFontDescriptionFlags>(DFDESC_ATTRIBUTES | DFDESC_WIDTH);
    desc.attributes = DFFA_NONE;
    // The size goes into the width: the glyph size on screen was tuned with it there.
    desc.width = size;

    IDirectFBFont* font = nullptr;
    if (m_DFB->CreateFont(m_DFB, path.c_str(), &desc, &font) != DFB_OK || font == nullptr) {
        OVL_LOGE("Error creating Font.  %s\n", path.c_str());
        return false;
    }
    m_font = font;
    return true;
}

bool GraphicContextDFB::drawText(std::string text, int x, int y, unsigned char r, unsigned char g,
                                 unsigned char b, unsigned char a, int flags, int lineSpacing) {
    OVL_TRACE();
    if (m_canvas == nullptr) {
        OVL_LOGE("No content to render.\n");
        return false;
    }
    m_canvas->SetColor(m_canvas, r, g, b, a);
    // Without a font (loadFont has logged why) DirectFB refuses SetFont and DrawString; a null
    // font is never asked its height, which would crash, so the lines are stacked at height 0.
    m_canvas->SetFont(m_canvas, m_font);
    const auto textFlags = static_cast<DFBSurfaceTextFlags>(flags);
    std::vector<std::string> lines;
    // Adjacent newlines are not merged: an empty line keeps its place.
    boost::split(lines, text, boost::is_any_of("\n"));
    if (lines.empty()) {
        m_canvas->DrawString(m_canvas, text.c_str(), -1, x, y, textFlags);
        return true;
    }

    int fontHeight = 0;
    if (m_font != nullptr) {
        m_font->GetHeight(m_font, &fontHeight);
    }
    for (const std::string& line : lines) {
        m_canvas->DrawString(m_canvas, line.c_str(), -1, x, y, textFlags);
        y += fontHeight + lineSpacing;
    }
    return true;
}

void GraphicContextDFB::blitTo(WindowContextDFB* window, int x, int y, int w, int h) {
    OVL_TRACE();
    IDirectFBSurface* target = window != nullptr ? window->getSurface() : nullptr;
    if (target == nullptr) {
        OVL_LOGE("Invalid WindowContext\n");
        return;
    }
    if (m_canvas == nullptr) {
        OVL_LOGE("No content to render.\n");
        return;
    }
    target->SetBlittingFlags(target, DSBLIT_NOFX);
    DFBRectangle dest = {x, y, w, h};
    target->StretchBlit(target, m_canvas, nullptr, &dest);

    OVL_LOGD("Flip the surface.\n");
    // Regions are inclusive, so this reaches one pixel past the rectangle; DirectFB clips it.
    DFBRegion region = {x, y, x + w, y + h};
    target->Flip(target, &region, DSFLIP_BLIT);
}

void GraphicContextDFB::flip() {
    OVL_TRACE();
    // One short on both axes: the right and bottom edges land one pixel inside the canvas.
    drawRect(0, 0, m_width - 1, m_height - 1, 255, 0, 0, 255);
    if (m_canvas != nullptr) {
        m_canvas->Flip(m_canvas, nullptr, DSFLIP_NONE);
    }
}

}  // namespace korvane
