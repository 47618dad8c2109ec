#include "picture_store.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ai_common.h"
#include "aipq_log.h"

namespace {

const char* const kDumpMarkerFile = "/var/local/aipq_dump/aipq_dump_capture_picture_bmp";
const char* const kDumpDirectory = "/var/local/aipq_dump";

constexpr size_t kFullPathSize = 100;
constexpr int kBmpBytesPerPixel = 3;
constexpr size_t kFileHeaderSize = 14;
constexpr size_t kInfoHeaderSize = 40;
constexpr uint32_t kPixelDataOffset = kFileHeaderSize + kInfoHeaderSize;

PictureStore* s_instance = nullptr;

void putLe16(unsigned char* p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v & 0xFFu);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void putLe32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>((v >> (8 * i)) & 0xFFu);
    }
}

}  // namespace

PictureStore* PictureStore::getInstance() {
    // Only the recognition worker gets here, so the lazy creation needs no guard.
    if (s_instance == nullptr) {
        s_instance = new PictureStore();
    }
    return s_instance;
}

PictureStore* PictureStore::createForTest(const std::string& markerPath, const std::string& dumpDir) {
    return new PictureStore(markerPath.c_str(), dumpDir.c_str());
}

PictureStore::PictureStore() : PictureStore(kDumpMarkerFile, kDumpDirectory) {}

PictureStore::PictureStore(const char* markerPath, const char* dumpDir)
    : m_enableDumpPictureData(false), m_dumpDir(dumpDir) {
    // Only the marker's presence counts; its contents are never read.
    FILE* marker = std::fopen(markerPath, "rb");
    if (marker != nullptr) {
        m_enableDumpPictureData = true;
        std::fclose(marker);
    }
    AC_LOGD("m_enableDumpPictureData :%d.\n", m_enableDumpPictureData ? 1 : 0);
}

PictureStore::~PictureStore() {}

bool PictureStore::enableDumpPicture() {
    return m_enableDumpPictureData;
}

void PictureStore::savePicture(korvane::ai::PictureData* pPictureData, const char* fileName) {
    if (!m_enableDumpPictureData) {
        AC_LOGD("do not enable dump picture data.\n");
        return;
    }
    if (fileName == nullptr || pPictureData == nullptr) {
        AC_LOGD("pPictureData is NULL, or fileName is NULL.\n");
        return;
    }

    char fullPath[kFullPathSize];
    std::memset(fullPath, 0, sizeof(fullPath));
    std::snprintf(fullPath, sizeof(fullPath), "%s/%s", m_dumpDir.c_str(), fileName);

    const int width = pPictureData->width;
    const int height = pPictureData->height;
    AC_LOGD("picture: height: %d width: %d.\n", height, width);
    AC_LOGD("fullPath :%s\n", fullPath);

    const int channels = getChannels(pPictureData->colorMode);
    // 64-bit: the width of an empty picture (no rows) may be anything.
    const long long oriWidthStep = static_cast<long long>(width) * channels;
    const long long destWidthStep = static_cast<long long>(width) * kBmpBytesPerPixel;
    AC_LOGD("oriWidthStep: %lld, destWidthStep: %lld.\n", oriWidthStep, destWidthStep);

    // A negative width or height gives an empty picture rather than a huge allocation.
    const size_t rowBytes = destWidthStep > 0 ? static_cast<size_t>(destWidthStep) : 0;
    const size_t rows = height > 0 ? static_cast<size_t>(height) : 0;
    std::vector<unsigned char> image(rowBytes * rows, 0);

    const bool bgrSource = pPictureData->colorMode == korvane::ai::COLOR_MODE_BGR888;
    const unsigned char* srcRow = pPictureData->buffer;
    for (int y = 0; y < height && width > 0 && srcRow != nullptr; ++y) {
        const unsigned char* src = srcRow;
        unsigned char* dst = image.data() + static_cast<size_t>(y) * rowBytes;
        for (int x = 0; x < width; ++x) {
            // BMP stores blue, green, red; only mode 3 already arrives in that order.
            if (bgrSource) {
                dst[0] = src[0];
                dst[1] = src[1];
                dst[2] = src[2];
            } else {
                dst[0] = src[2];
                dst[1] = src[1];
                dst[2] = src[0];
            }
            src += channels;
            dst += kBmpBytesPerPixel;
        }
        srcRow += oriWidthStep;
    }

    // Both size fields leave out the row padding, although the rows in the file carry it. They count
    // the rows written, so that a negative width or height gives the empty picture's sizes.
    const uint32_t imageSize = static_cast<uint32_t>(rowBytes * rows);
    unsigned char fileType[2] = {'B', 'M'};
    unsigned char fileHeader[kFileHeaderSize - 2];
    std::memset(fileHeader, 0, sizeof(fileHeader));
    putLe32(fileHeader + 0, imageSize + kPixelDataOffset);
    putLe16(fileHeader + 4, 0);
    putLe16(fileHeader + 6, 0);
    putLe32(fileHeader + 8, kPixelDataOffset);

    unsigned char infoHeader[kInfoHeaderSize];
    std::memset(infoHeader, 0, sizeof(infoHeader));
    putLe32(infoHeader + 0, static_cast<uint32_t>(kInfoHeaderSize));
    putLe32(infoHeader + 4, static_cast<uint32_t>(width));
    putLe32(infoHeader + 8, static_cast<uint32_t>(height));  // positive: rows run bottom-up
    putLe16(infoHeader + 12, 1);
    putLe16(infoHeader + 14, 24);
    putLe32(infoHeader + 16, 0);
    putLe32(infoHeader + 20, imageSize);
    AC_LOGD("Writing BMP to file system.\n");

    FILE* file = std::fopen(fullPath, "wb");
    if (file == nullptr) {
        AC_LOGE("Failed to open BMP file.\n");
    } else {
        // The first failure stops the file: what follows could only fail the same way.
        int error = 0;
        errno = 0;
        auto put = [&](const void* data, size_t size, size_t count) {
            if (error == 0 && std::fwrite(data, size, count, file) != count) {
                error = errno != 0 ? errno : EIO;
            }
        };
        put(fileType, 1, sizeof(fileType));
        put(fileHeader, 1, sizeof(fileHeader));
        put(infoHeader, 1, sizeof(infoHeader));
        static const unsigned char kPadding[3] = {0, 0, 0};
        const size_t padding = (4 - rowBytes % 4) % 4;
        for (size_t r = rows; r > 0 && rowBytes > 0; --r) {
            put(image.data() + (r - 1) * rowBytes, kBmpBytesPerPixel, rowBytes / kBmpBytesPerPixel);
            put(kPadding, 1, padding);
        }
        AC_LOGD("Flushing BMP to file system.\n");
        if (std::fflush(file) != 0 && error == 0) {
            error = errno;
        }
        if (std::fclose(file) != 0 && error == 0) {
            error = errno;
        }
        // A cut file (a full disk) would still open as a picture, only not the one captured.
        if (error != 0) {
            AC_LOGE("Failed to write BMP file %s: %s; removed.\n", fullPath, std::strerror(error));
            std::remove(fullPath);
        }
    }
    AC_LOGD("BMP generating finished.\n");
}
