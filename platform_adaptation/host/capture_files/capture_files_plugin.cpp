// Entry points of the file-source plug-in. Nothing may escape them as an exception: the caller is
// the daemon's capture path, across a C boundary.
#include "capture_files_plugin.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "image_reader.h"
#include "video_reader.h"

#define AIPQ_EXPORT __attribute__((visibility("default")))

struct AipqCaptureFiles {
    enum class Kind { Image, Directory, Video };
    Kind kind = Kind::Image;
    std::string source;
    std::vector<uint8_t> picture;  // a single image, decoded and scaled once
    std::vector<std::string> files;
    size_t nextFile = 0;
    std::unique_ptr<capture_files::VideoReader> video;
};

namespace {

constexpr size_t kPictureBytes =
    static_cast<size_t>(AIPQ_CAPTURE_FILES_WIDTH) * AIPQ_CAPTURE_FILES_HEIGHT * 3;

void putText(char* text, size_t size, const std::string& value) {
    if (text == nullptr || size == 0) {
        return;
    }
    size_t n = std::min(value.size(), size - 1);
    std::memcpy(text, value.data(), n);
    text[n] = '\0';
}

std::unique_ptr<AipqCaptureFiles> openSource(const std::string& source, std::string* note) {
    std::unique_ptr<AipqCaptureFiles> handle(new AipqCaptureFiles);
    handle->source = source;
    struct stat st;
    if (stat(source.c_str(), &st) != 0) {
        *note = "capture source " + source + " does not exist.";
        return nullptr;
    }
    if (S_ISDIR(st.st_mode)) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(source, ec)) {
            if (entry.is_regular_file(ec) && capture_files::isImageName(entry.path().string())) {
                handle->files.push_back(entry.path().string());
            }
        }
        if (handle->files.empty()) {
            *note = "capture source " + source + " holds no image files.";
            return nullptr;
        }
        std::sort(handle->files.begin(), handle->files.end());
        handle->kind = AipqCaptureFiles::Kind::Directory;
        *note = std::to_string(handle->files.size()) + " images of directory " + source + ", in name order.";
        return handle;
    }
    if (capture_files::isImageName(source)) {
        handle->picture.resize(kPictureBytes);
        if (!capture_files::readImage(source, handle->picture.data(), note)) {
            return nullptr;
        }
        handle->kind = AipqCaptureFiles::Kind::Image;
        if (!note->empty() && note->back() == '.') {
            note->pop_back();
        }
        *note += ", the same picture every time.";
        return handle;
    }
    handle->video.reset(new capture_files::VideoReader);
    if (!handle->video->open(source, note)) {
        return nullptr;
    }
    handle->kind = AipqCaptureFiles::Kind::Video;
    return handle;
}

bool readSource(AipqCaptureFiles* handle, uint8_t* rgb, int64_t positionUs, std::string* note) {
    switch (handle->kind) {
        case AipqCaptureFiles::Kind::Image:
            std::memcpy(rgb, handle->picture.data(), kPictureBytes);
            *note = "image " + handle->source + ".";
            return true;
        case AipqCaptureFiles::Kind::Directory: {
            // A file that cannot be read costs its turn only; the next call moves on.
            const std::string& path = handle->files[handle->nextFile];
            handle->nextFile = (handle->nextFile + 1) % handle->files.size();
            return capture_files::readImage(path, rgb, note);
        }
        case AipqCaptureFiles::Kind::Video:
            return handle->video->read(positionUs, rgb, note);
    }
    return false;
}

}  // namespace

extern "C" {

AIPQ_EXPORT int aipq_capture_files_abi(void) {
    return AIPQ_CAPTURE_FILES_ABI;
}

AIPQ_EXPORT AipqCaptureFiles* aipq_capture_files_open(const char* source, char* text, size_t textSize) {
    std::string note;
    try {
        if (source == nullptr || *source == '\0') {
            putText(text, textSize, "no capture source given.");
            return nullptr;
        }
        std::unique_ptr<AipqCaptureFiles> handle = openSource(source, &note);
        putText(text, textSize, note);
        return handle.release();
    } catch (const std::exception& e) {
        putText(text, textSize, std::string("capture source ") + source + ": " + e.what());
    } catch (...) {
        putText(text, textSize, std::string("capture source ") + source + ": unknown failure.");
    }
    return nullptr;
}

AIPQ_EXPORT int aipq_capture_files_read(AipqCaptureFiles* handle, uint8_t* rgb, int64_t positionUs,
                                        char* text, size_t textSize) {
    if (handle == nullptr || rgb == nullptr) {
        putText(text, textSize, "no capture source open.");
        return 0;
    }
    std::string note;
    try {
        bool ok = readSource(handle, rgb, positionUs, &note);
        putText(text, textSize, note);
        return ok ? 1 : 0;
    } catch (const std::exception& e) {
        putText(text, textSize, "capture source " + handle->source + ": " + e.what());
    } catch (...) {
        putText(text, textSize, "capture source " + handle->source + ": unknown failure.");
    }
    return 0;
}

AIPQ_EXPORT void aipq_capture_files_close(AipqCaptureFiles* handle) {
    delete handle;
}

}  // extern "C"
