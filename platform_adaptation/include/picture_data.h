#ifndef PLATFORM_ADAPTATION_PICTURE_DATA_H
#define PLATFORM_ADAPTATION_PICTURE_DATA_H

#include <cstdint>

namespace korvane {
namespace ai {

// Pixel layout of a captured frame. Modes 1 and 2 carry 4 bytes a pixel, all others 3;
// mode 3 is blue-green-red, the others red-green-blue.
enum ColorMode : int32_t {
    COLOR_MODE_NONE = 0,
    COLOR_MODE_ARGB8888 = 1,
    COLOR_MODE_ABGR8888 = 2,
    COLOR_MODE_BGR888 = 3,
    COLOR_MODE_RGB888 = 4,
};

// One captured frame. The pixel buffer belongs to the capture side; rows are tightly packed.
struct PictureData {
    unsigned char* buffer;
    int32_t width;
    int32_t height;
    ColorMode colorMode;
    int32_t reserved;
};

}  // namespace ai
}  // namespace korvane

#endif
