#ifndef PLATFORM_HOST_CAPTURE_FILES_IMAGE_READER_H
#define PLATFORM_HOST_CAPTURE_FILES_IMAGE_READER_H

#include <cstdint>
#include <string>

namespace capture_files {

// True when the name ends in an extension the image decoder reads (case-insensitive).
bool isImageName(const std::string& path);

// Width and height from a JPEG's frame header, without decoding. False when the file is not a
// JPEG or the header gives no size.
bool jpegSize(const std::string& path, int* width, int* height);

// 1, 2, 4 or 8: the largest reduction by which both dimensions still cover the 224 x 224 target.
int reductionFor(int width, int height);

// Decodes an image file into 224 x 224 RGB. A JPEG is decoded at the reduction reductionFor
// allows, so a photo costs a fraction of a full decode. On success *note says what was read; on
// failure rgb is untouched and *note holds the reason.
bool readImage(const std::string& path, uint8_t* rgb, std::string* note);

}  // namespace capture_files

#endif
