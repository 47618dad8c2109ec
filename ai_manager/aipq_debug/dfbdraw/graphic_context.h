#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_GRAPHIC_CONTEXT_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_GRAPHIC_CONTEXT_H

#include <string>

namespace korvane {

class ImageContext;
class WindowContextDFB;

// An offscreen canvas with the overlay's drawing primitives. A true result means "drawn".
class GraphicContext {
public:
    virtual bool initialize() = 0;
    virtual void finalize() = 0;
    virtual void setContentSize(int width, int height) = 0;
    virtual void clear(unsigned char r, unsigned char g, unsigned char b, unsigned char a) = 0;
    virtual bool drawImage(ImageContext* image, int x, int y, int w, int h) = 0;
    virtual bool drawRect(int x, int y, int w, int h, unsigned char r, unsigned char g, unsigned char b,
                          unsigned char a) = 0;
    virtual bool fillRect(int x, int y, int w, int h, unsigned char r, unsigned char g, unsigned char b,
                          unsigned char a) = 0;
    virtual bool loadFont(std::string path, int size) = 0;
    virtual bool drawText(std::string text, int x, int y, unsigned char r, unsigned char g, unsigned char b,
                          unsigned char a, int flags, int lineSpacing) = 0;
    virtual void blitTo(WindowContextDFB* window, int x, int y, int w, int h) = 0;
    virtual void flip() = 0;

protected:
    // Not virtual, so the operations above keep their slots; contexts from createGraphicContext
    // go back through destroyGraphicContext, which deletes them as what they are.
    ~GraphicContext() = default;
};

GraphicContext* createGraphicContext();
// Frees the object only; DirectFB resources go with finalize().
void destroyGraphicContext(GraphicContext* context);

}  // namespace korvane

#endif
