#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_GRAPHIC_CONTEXT_DFB_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_GRAPHIC_CONTEXT_DFB_H

#include <directfb.h>

#include <cstdint>
#include <string>

#include "graphic_context.h"

namespace korvane {

class GraphicContextDFB final : public GraphicContext {
public:
    static GraphicContextDFB* create();

    GraphicContextDFB() = default;
    GraphicContextDFB(const GraphicContextDFB&) = delete;
    GraphicContextDFB& operator=(const GraphicContextDFB&) = delete;

    bool initialize() override;
    // The context is not used again afterwards.
    void finalize() override;
    void setContentSize(int width, int height) override;
    void clear(unsigned char r, unsigned char g, unsigned char b, unsigned char a) override;
    bool drawImage(ImageContext* image, int x, int y, int w, int h) override;
    bool drawRect(int x, int y, int w, int h, unsigned char r, unsigned char g, unsigned char b,
                  unsigned char a) override;
    bool fillRect(int x, int y, int w, int h, unsigned char r, unsigned char g, unsigned char b,
                  unsigned char a) override;
    // The first font loaded stays for the life of the context.
    bool loadFont(std::string path, int size) override;
    bool drawText(std::string text, int x, int y, unsigned char r, unsigned char g, unsigned char b,
                  unsigned char a, int flags, int lineSpacing) override;
    void blitTo(WindowContextDFB* window, int x, int y, int w, int h) override;
    void flip() override;

private:
    int32_t m_width = 0;
    int32_t m_height = 0;
    IDirectFB* m_DFB = nullptr;
    IDirectFBSurface* m_canvas = nullptr;
    IDirectFBFont* m_font = nullptr;
};

}  // namespace korvane

#endif
