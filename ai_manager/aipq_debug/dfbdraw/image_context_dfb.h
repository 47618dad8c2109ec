#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_IMAGE_CONTEXT_DFB_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_IMAGE_CONTEXT_DFB_H

#include <directfb.h>

#include <cstdint>
#include <string>

#include "image_context.h"

namespace korvane {

class ImageContextDFB : public ImageContext {
public:
    // On the caller's buffer (3 bytes a pixel, DirectFB RGB24 byte order), used in place.
    static ImageContextDFB* create(void* buffer, int width, int height);
    // From an image file; drawn at width x height when both are at least 1.
    static ImageContextDFB* create(int width, int height, std::string path);

    ImageContextDFB() = default;
    ~ImageContextDFB() override;
    ImageContextDFB(const ImageContextDFB&) = delete;
    ImageContextDFB& operator=(const ImageContextDFB&) = delete;

    void loadFromBuffer(void* buffer, int width, int height);
    void loadFromFile(int width, int height, std::string path);
    // Only the size the image is drawn at; the surface keeps its own.
    void setScaledContentSize(int width, int height);

    int width() override;
    int height() override;
    IDirectFBSurface* getSurface();

private:
    int32_t m_width = -1;
    int32_t m_height = -1;
    IDirectFB* m_DFB = nullptr;
    IDirectFBSurface* m_surface = nullptr;
};

}  // namespace korvane

#endif
