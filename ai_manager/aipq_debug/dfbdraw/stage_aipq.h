#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_STAGE_AIPQ_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_STAGE_AIPQ_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace korvane {

class GraphicContext;
class ImageContext;

// Values of RenderObject::type.
enum RenderObjectType : int32_t {
    kRenderImage = 0,
    kRenderRectangle = 2,
    kRenderText = 4,
    kRenderImageBuffer = 5,
};

class RenderObject {
public:
    RenderObject(int32_t objectType, const std::string& objectName)
        : type(objectType), visible(true), name(objectName) {}
    virtual ~RenderObject() = default;
    RenderObject(const RenderObject&) = delete;
    RenderObject& operator=(const RenderObject&) = delete;

    virtual std::string getName() { return name; }

    int32_t type;
    bool visible;
    std::string name;
};

class RenderObjectRectangle : public RenderObject {
public:
    explicit RenderObjectRectangle(const std::string& objectName)
        : RenderObject(kRenderRectangle, objectName) {}

    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;
    int32_t height = 0;
    uint32_t color = 0;  // 0xAARRGGBB
    bool fill = false;   // set by init; rectangles are always filled
};

class RenderObjectText : public RenderObject {
public:
    explicit RenderObjectText(const std::string& objectName) : RenderObject(kRenderText, objectName) {}

    std::string text;  // lines separated by "\n"
    std::string fontPath;
    uint32_t color = 0xFFFFFFFF;  // 0xAARRGGBB
    int32_t fontSize = 30;
    int32_t reserved = 0;
    int32_t textFlags = 0;
    int32_t lineSpacing = 0;  // extra pixels between lines
    int32_t x = 100;          // first line
    int32_t y = 300;
};

class RenderObjectImageBuffer : public RenderObject {
public:
    explicit RenderObjectImageBuffer(const std::string& objectName)
        : RenderObject(kRenderImageBuffer, objectName) {}
    ~RenderObjectImageBuffer() override;

    std::string source;  // unused
    std::string format;  // unused
    int32_t bufferWidth = 0;
    int32_t bufferHeight = 0;
    int32_t bufferPitch = 0;
    int32_t x = 100;
    int32_t y = 35;
    ImageContext* image = nullptr;  // owned
};

// Draws an entry of the stage's resource map into a rectangle.
class RenderObjectImage : public RenderObject {
public:
    explicit RenderObjectImage(const std::string& objectName) : RenderObject(kRenderImage, objectName) {}

    std::string resource;  // key in the resource map
    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;
    int32_t height = 0;
};

struct ImageResource {
    std::string name;
    std::string path;
    int32_t width = 0;  // 0: the file's own size
    int32_t height = 0;
    ImageContext* image = nullptr;  // null until loadResources
};

// The overlay's scene: an ordered list of objects drawn onto a graphic context, later ones on top.
class StageAIPQ {
public:
    StageAIPQ();
    ~StageAIPQ();
    StageAIPQ(const StageAIPQ&) = delete;
    StageAIPQ& operator=(const StageAIPQ&) = delete;

    // Not owned.
    void setGraphicContext(GraphicContext* gc);
    void loadResources();
    // The list becomes the background rectangle alone.
    void init();
    // Each replaces the object of its kind and appends the new one, so the list follows the order
    // of the last setup calls.
    void setupTextObject(std::string& text, int lineSpacing);
    void setupImageObject(void* buffer, int width, int height);
    // Drops the picture, whose surface reads the caller's buffer in place, before that buffer goes.
    void removeImageObject();
    void doRender();

    void renderRectangle(RenderObjectRectangle* obj);
    void renderText(RenderObjectText* obj);
    void renderImageBuffer(RenderObjectImageBuffer* obj);
    void renderImage(RenderObjectImage* obj);

    const std::vector<RenderObject*>& renderObjects() const { return m_renderObjects; }

private:
    GraphicContext* m_graphicContext = nullptr;
    std::map<std::string, ImageResource*> m_resources;
    std::vector<RenderObject*> m_renderObjects;
    uint32_t backgroundColor = 0x96808080;  // half-transparent grey
    [[maybe_unused]] int32_t m_reserved = 0;
    std::string m_path;  // PATH at construction, kept for diagnostics
};

}  // namespace korvane

#endif
