#include "image_reader.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "capture_files_plugin.h"

namespace capture_files {

namespace {

constexpr int kWidth = AIPQ_CAPTURE_FILES_WIDTH;
constexpr int kHeight = AIPQ_CAPTURE_FILES_HEIGHT;

int readFlag(int reduction) {
    switch (reduction) {
        case 8:
            return cv::IMREAD_REDUCED_COLOR_8;
        case 4:
            return cv::IMREAD_REDUCED_COLOR_4;
        case 2:
            return cv::IMREAD_REDUCED_COLOR_2;
        default:
            return cv::IMREAD_COLOR;
    }
}

}  // namespace

bool isImageName(const std::string& path) {
    size_t dot = path.find_last_of("./");
    if (dot == std::string::npos || path[dot] != '.') {
        return false;
    }
    std::string ext = path.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    static const char* const kImageExtensions[] = {".png", ".jpg", ".jpeg", ".bmp",  ".ppm",
                                                   ".pgm", ".pnm", ".tif",  ".tiff", ".webp"};
    for (const char* known : kImageExtensions) {
        if (ext == known) {
            return true;
        }
    }
    return false;
}

bool jpegSize(const std::string& path, int* width, int* height) {
    std::ifstream in(path, std::ios::binary);
    if (in.get() != 0xFF || in.get() != 0xD8) {
        return false;
    }
    for (;;) {
        if (in.get() != 0xFF) {
            return false;
        }
        int marker = in.get();
        while (marker == 0xFF) {  // fill bytes
            marker = in.get();
        }
        if (marker == EOF || marker == 0xD9 || marker == 0xDA) {
            return false;  // end of image or scan data before any frame header
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {
            continue;  // markers without a length
        }
        unsigned char len[2];
        if (!in.read(reinterpret_cast<char*>(len), 2)) {
            return false;
        }
        int length = (len[0] << 8) | len[1];
        if (length < 2) {
            return false;
        }
        // C4, C8 and CC share the range of the frame headers but are tables and extensions.
        bool frameHeader =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (frameHeader) {
            unsigned char h[5];  // precision, height, width
            if (length < 7 || !in.read(reinterpret_cast<char*>(h), 5)) {
                return false;
            }
            *height = (h[1] << 8) | h[2];
            *width = (h[3] << 8) | h[4];
            return *width > 0 && *height > 0;
        }
        if (!in.seekg(length - 2, std::ios::cur)) {
            return false;
        }
    }
}

int reductionFor(int width, int height) {
    for (int reduction : {8, 4, 2}) {
        if (width >= reduction * kWidth && height >= reduction * kHeight) {
            return reduction;
        }
    }
    return 1;
}

bool readImage(const std::string& path, uint8_t* rgb, std::string* note) {
    // Only the JPEG decoder scales while it decodes; other formats would be decoded in full and
    // then shrunk by a cruder filter than the one below.
    int width = 0;
    int height = 0;
    int reduction = jpegSize(path, &width, &height) ? reductionFor(width, height) : 1;
    cv::Mat bgr = cv::imread(path, readFlag(reduction));
    if (bgr.empty()) {
        *note = "cannot read image " + path + ".";
        return false;
    }
    std::string size = std::to_string(bgr.cols) + "x" + std::to_string(bgr.rows);
    if (bgr.cols != kWidth || bgr.rows != kHeight) {
        cv::Mat scaled;
        cv::resize(bgr, scaled, cv::Size(kWidth, kHeight), 0, 0, cv::INTER_AREA);
        bgr = scaled;
    }
    cv::Mat out(kHeight, kWidth, CV_8UC3, rgb);
    cv::cvtColor(bgr, out, cv::COLOR_BGR2RGB);
    *note = "image " + path + ", decoded " + size;
    if (reduction > 1) {
        *note += " at 1/" + std::to_string(reduction);
    }
    *note += ".";
    return true;
}

}  // namespace capture_files
