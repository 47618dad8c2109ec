// Dumped frames must open in any BMP reader, so small pictures are checked byte for byte.
#include "picture_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;
using korvane::ai::ColorMode;

namespace {

// Both size fields count rows of width * 3 bytes, without their padding.
Bytes header(unsigned char fileSize, unsigned char width, unsigned char height, unsigned char imageSize) {
    Bytes h = {'B', 'M', fileSize, 0,      0, 0, 0, 0, 0, 0,  54, 0, 0, 0, 40, 0,         0, 0, width,
               0,   0,   0,        height, 0, 0, 0, 1, 0, 24, 0,  0, 0, 0, 0,  imageSize, 0, 0, 0};
    h.resize(54, 0);
    return h;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(PictureStoreTest, FilesAreByteExact) {
    char tmpl[] = "/tmp/aipq_store_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const fs::path dir = tmpl;
    std::ofstream(dir / "marker") << "x";
    std::unique_ptr<PictureStore> store(PictureStore::createForTest((dir / "marker").string(), dir.string()));
    ASSERT_TRUE(store->enableDumpPicture());

    struct Case {
        const char* name;
        int width, height;
        ColorMode mode;
        Bytes pixels, file;
    };
    const Case cases[] = {
        {"1x1 rgb, padded row",
         1,
         1,
         korvane::ai::COLOR_MODE_RGB888,
         {10, 20, 30},
         header(57, 1, 1, 3) + Bytes{30, 20, 10, 0}},
        {"4x2 rgb, bottom row first, no padding",
         4,
         2,
         korvane::ai::COLOR_MODE_RGB888,
         {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24},
         header(78, 4, 2, 24) +
             Bytes{15, 14, 13, 18, 17, 16, 21, 20, 19, 24, 23, 22, 3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10}},
        {"2x2 bgr copied unchanged",
         2,
         2,
         korvane::ai::COLOR_MODE_BGR888,
         {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
         header(66, 2, 2, 12) + Bytes{7, 8, 9, 10, 11, 12, 0, 0, 1, 2, 3, 4, 5, 6, 0, 0}},
        {"argb drops the fourth byte",
         2,
         1,
         korvane::ai::COLOR_MODE_ARGB8888,
         {1, 2, 3, 99, 4, 5, 6, 98},
         header(60, 2, 1, 6) + Bytes{3, 2, 1, 6, 5, 4, 0, 0}},
        {"abgr likewise",
         2,
         1,
         korvane::ai::COLOR_MODE_ABGR8888,
         {1, 2, 3, 99, 4, 5, 6, 98},
         header(60, 2, 1, 6) + Bytes{3, 2, 1, 6, 5, 4, 0, 0}},
        {"height 0: headers only", 5, 0, korvane::ai::COLOR_MODE_RGB888, {}, header(54, 5, 0, 0)},
    };
    for (const Case& c : cases) {
        Bytes pixels = c.pixels;
        korvane::ai::PictureData picture{pixels.data(), c.width, c.height, c.mode, 0};
        store->savePicture(&picture, "p.bmp");
        EXPECT_EQ(readFile(dir / "p.bmp"), c.file) << c.name;
    }

    // The switch is the marker's presence when the store is made.
    fs::remove(dir / "marker");
    store.reset(PictureStore::createForTest((dir / "marker").string(), dir.string()));
    unsigned char pixel[3] = {1, 2, 3};
    korvane::ai::PictureData picture{pixel, 1, 1, korvane::ai::COLOR_MODE_RGB888, 0};
    store->savePicture(&picture, "off.bmp");
    EXPECT_FALSE(store->enableDumpPicture());
    EXPECT_FALSE(fs::exists(dir / "off.bmp"));
    fs::remove_all(dir);
}

}  // namespace
