#include "stage_aipq.h"

#include <cstdlib>

#include "graphic_context.h"
#include "image_context.h"
#include "overlay_log.h"

namespace korvane {

namespace {

const char* const kBackgroundKey = "dark_background";
const char* const kBackgroundImage = "/opt/webengine/resources/aipq_background.png";
const char* const kDefaultFont = "/opt/font/HBBTV02_Tiresias.ttf";

struct Rgba {
    unsigned char r, g, b, a;
};

Rgba splitColor(uint32_t argb) {
    return Rgba{static_cast<unsigned char>((argb >> 16) & 0xFF),
                static_cast<unsigned char>((argb >> 8) & 0xFF), static_cast<unsigned char>(argb & 0xFF),
                static_cast<unsigned char>((argb >> 24) & 0xFF)};
}

// Deletes the first object of the given type and closes the gap; the others keep their order.
bool removeFirstOfType(std::vector<RenderObject*>& objects, int32_t type) {
    for (auto it = objects.begin(); it != objects.end(); ++it) {
        if (*it != nullptr && (*it)->type == type) {
            delete *it;
            objects.erase(it);
            return true;
        }
    }
    return false;
}

}  // namespace

RenderObjectImageBuffer::~RenderObjectImageBuffer() {
    delete image;
}

StageAIPQ::StageAIPQ() {
    OVL_TRACE();
    if (const char* path = std::getenv("PATH")) {
        m_path = path;
    }
    auto* background = new ImageResource();
    background->name = "background";
    background->path = kBackgroundImage;
    m_resources[kBackgroundKey] = background;
}

StageAIPQ::~StageAIPQ() {
    OVL_TRACE();
    for (auto& entry : m_resources) {
        if (entry.second != nullptr) {
            delete entry.second->image;
            delete entry.second;
        }
    }
    m_resources.clear();
    for (RenderObject* obj : m_renderObjects) {
        delete obj;
    }
    m_renderObjects.clear();
}

void StageAIPQ::setGraphicContext(GraphicContext* gc) {
    OVL_TRACE();
    m_graphicContext = gc;
}

void StageAIPQ::loadResources() {
    OVL_TRACE();
    for (auto& entry : m_resources) {
        ImageResource* resource = entry.second;
        if (resource != nullptr) {
            resource->image = createImageContext(nullptr, resource->width, resource->height, resource->path);
        }
    }
}

void StageAIPQ::init() {
    OVL_TRACE();
    // Dropped, not freed: init is for a fresh stage.
    m_renderObjects.clear();

    auto* background = new RenderObjectRectangle("background");
    background->x = 78;
    background->y = 10;
    background->width = 1000;
    background->height = 1055;
    background->color = backgroundColor;
    background->fill = true;
    m_renderObjects.push_back(background);
}

void StageAIPQ::setupTextObject(std::string& text, int lineSpacing) {
    OVL_TRACE();
    if (removeFirstOfType(m_renderObjects, kRenderText)) {
        OVL_LOGD("delete previous text info.\n");
    }

    auto* obj = new RenderObjectText("aipqText");
    obj->text = text;
    const char* font = std::getenv("FONTFILE");
    obj->fontPath = font != nullptr ? font : kDefaultFont;
    obj->lineSpacing = lineSpacing;
    m_renderObjects.push_back(obj);
    OVL_LOGD("objects size:%d\n", static_cast<int>(m_renderObjects.size()));
}

void StageAIPQ::removeImageObject() {
    OVL_TRACE();
    if (removeFirstOfType(m_renderObjects, kRenderImageBuffer)) {
        OVL_LOGD("delete previous image info.\n");
    }
}

void StageAIPQ::setupImageObject(void* buffer, int width, int height) {
    OVL_TRACE();
    if (removeFirstOfType(m_renderObjects, kRenderImageBuffer)) {
        OVL_LOGD("delete previous image info.\n");
    }

    auto* obj = new RenderObjectImageBuffer("aipqImage");
    obj->image = createImageContext(buffer, width, height, "");
    m_renderObjects.push_back(obj);
    OVL_LOGD("objects size:%d\n", static_cast<int>(m_renderObjects.size()));
}

void StageAIPQ::doRender() {
    OVL_TRACE();
    if (m_graphicContext == nullptr) {
        OVL_LOGE("No Grahpic context\n");
        return;
    }
    for (size_t i = 0; i < m_renderObjects.size(); ++i) {
        RenderObject* obj = m_renderObjects[i];
        if (obj == nullptr) {
            continue;
        }
        switch (obj->type) {
            case kRenderImage:
                renderImage(static_cast<RenderObjectImage*>(obj));
                break;
            case kRenderRectangle:
                renderRectangle(static_cast<RenderObjectRectangle*>(obj));
                break;
            case kRenderText:
                renderText(static_cast<RenderObjectText*>(obj));
                break;
            case kRenderImageBuffer:
                renderImageBuffer(static_cast<RenderObjectImageBuffer*>(obj));
                break;
            default:
                break;
        }
    }
}

void StageAIPQ::renderRectangle(RenderObjectRectangle* obj) {
    OVL_TRACE();
    if (obj == nullptr) {
        OVL_LOGE("No rec\n");
        return;
    }
    if (!obj->visible || m_graphicContext == nullptr) {
        return;
    }
    OVL_LOGD("Render Rectangle.\n");
    const Rgba c = splitColor(obj->color);
    m_graphicContext->fillRect(obj->x, obj->y, obj->width, obj->height, c.r, c.g, c.b, c.a);
}

void StageAIPQ::renderText(RenderObjectText* obj) {
    OVL_TRACE();
    if (obj == nullptr) {
        OVL_LOGE("Invalid TextObject\n");
        return;
    }
    if (!obj->visible || m_graphicContext == nullptr) {
        return;
    }
    OVL_LOGD("Render text.\n");
    m_graphicContext->loadFont(obj->fontPath, obj->fontSize);
    const Rgba c = splitColor(obj->color);
    m_graphicContext->drawText(obj->text, obj->x, obj->y, c.r, c.g, c.b, c.a, obj->textFlags,
                               obj->lineSpacing);
}

void StageAIPQ::renderImageBuffer(RenderObjectImageBuffer* obj) {
    OVL_TRACE();
    if (obj == nullptr || obj->image == nullptr) {
        OVL_LOGE("invalid Render Object.\n");
        return;
    }
    if (m_graphicContext == nullptr) {
        return;
    }
    const int width = obj->image->width();
    const int height = obj->image->height();
    OVL_LOGT("Draw Image : %d ,  %d , %d ,%d \n", obj->x, obj->y, width, height);
    m_graphicContext->drawImage(obj->image, obj->x, obj->y, width, height);
}

void StageAIPQ::renderImage(RenderObjectImage* obj) {
    OVL_TRACE();
    if (obj == nullptr) {
        OVL_LOGE("invalid Render Object.\n");
        return;
    }
    auto it = m_resources.find(obj->resource);
    if (it == m_resources.end() || it->second == nullptr || it->second->image == nullptr) {
        OVL_LOGE("Image Resource Not Found :[ %s]\n", obj->resource.c_str());
        return;
    }
    if (m_graphicContext == nullptr) {
        return;
    }
    OVL_LOGD("Draw Image : %d ,  %d , %d ,%d  %s\n", obj->x, obj->y, obj->width, obj->height,
             obj->resource.c_str());
    m_graphicContext->drawImage(it->second->image, obj->x, obj->y, obj->width, obj->height);
}

}  // namespace korvane
