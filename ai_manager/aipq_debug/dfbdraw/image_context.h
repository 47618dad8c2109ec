#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_IMAGE_CONTEXT_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_IMAGE_CONTEXT_H

#include <string>

namespace korvane {

// An image ready to be drawn; width() and height() are the size it is drawn at.
class ImageContext {
public:
    virtual int width() = 0;
    virtual int height() = 0;
    virtual ~ImageContext() = default;
};

// With an empty path: an image on the caller's packed 3-byte pixels, used in place, so the buffer
// must outlive the image. Otherwise: the file, drawn at width x height when both are positive.
ImageContext* createImageContext(void* buffer, int width, int height, std::string path);

}  // namespace korvane

#endif
