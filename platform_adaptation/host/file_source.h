#ifndef PLATFORM_ADAPTATION_HOST_FILE_SOURCE_H
#define PLATFORM_ADAPTATION_HOST_FILE_SOURCE_H

#include <cstdint>
#include <string>

#include "capture_files/capture_files_plugin.h"

namespace host {

// Pictures from an image, a directory of images or a video, decoded by the file-source plug-in.
// The plug-in is loaded on the first open, so that a capture on the built-in scenes never maps
// the image and video libraries, and then kept for the life of the process.
class FileSource {
public:
    FileSource() = default;
    ~FileSource();
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    // True with a description of the source in `text`, or false with the reason there.
    bool open(const std::string& source, std::string* text);
    // The next 224 x 224 RGB picture into `rgb`; for a video the one at `positionUs` since open.
    // `text` says what was read, or why nothing was.
    bool read(uint8_t* rgb, int64_t positionUs, std::string* text);
    void close();

private:
    bool loadPlugin(std::string* error);
    bool tryPlugin(const std::string& path, std::string* error);

    void* m_library = nullptr;
    AipqCaptureFilesOpenFn m_open = nullptr;
    AipqCaptureFilesReadFn m_read = nullptr;
    AipqCaptureFilesCloseFn m_close = nullptr;
    AipqCaptureFiles* m_files = nullptr;
};

}  // namespace host

#endif
