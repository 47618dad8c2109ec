#ifndef PLATFORM_ADAPTATION_PICTURE_CAPTURE_H
#define PLATFORM_ADAPTATION_PICTURE_CAPTURE_H

#include <memory>

#include "picture_data.h"

// Frame grabber. getPicture fills the record with a frame of the requested width and height
// (224 x 224) and leaves its pixels in the AI service's shared payload as well.
class PictureCapture {
public:
    PictureCapture();
    virtual ~PictureCapture();
    PictureCapture(const PictureCapture&) = delete;
    PictureCapture& operator=(const PictureCapture&) = delete;

    virtual bool start();
    virtual bool stop();
    virtual bool getPicture(bool sync, korvane::ai::PictureData* picture);

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

#endif
