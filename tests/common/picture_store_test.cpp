// Dumped frames must open in any BMP reader, so small pictures are checked byte for byte.
#include "picture_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "log_capture.h"

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

namespace {

// A 24-bit file: both size fields count rows of width * 3 bytes, without their padding.
Bytes bmp(unsigned char fileSize, unsigned char width, unsigned char height, unsigned char imageSize,
          const Bytes& rows) {
    Bytes file = {'B', 'M', fileSize, 0,      0, 0, 0, 0, 0, 0,  54, 0, 0, 0, 40, 0,         0, 0, width,
                  0,   0,   0,        height, 0, 0, 0, 1, 0, 24, 0,  0, 0, 0, 0,  imageSize, 0, 0, 0};
    file.resize(54, 0);
    file.insert(file.end(), rows.begin(), rows.end());
    return file;
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

    using namespace korvane::ai;
    const ColorMode rgb = COLOR_MODE_RGB888, bgr = COLOR_MODE_BGR888;
    const Bytes twelve = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const struct {
        ColorMode mode;
        int width, height;
        Bytes pixels, file;
    } cases[] = {
        // Rows are padded to four bytes, and the bottom row comes first.
        {rgb, 1, 1, {10, 20, 30}, bmp(57, 1, 1, 3, {30, 20, 10, 0})},
        {rgb, 1, 2, {1, 2, 3, 4, 5, 6}, bmp(60, 1, 2, 6, {6, 5, 4, 0, 3, 2, 1, 0})},
        {rgb, 4, 1, twelve, bmp(66, 4, 1, 12, {3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10})},
        // Mode 3 is already blue-green-red; four-byte modes drop the fourth byte.
        {bgr, 2, 1, {1, 2, 3, 4, 5, 6}, bmp(60, 2, 1, 6, {1, 2, 3, 4, 5, 6, 0, 0})},
        {COLOR_MODE_ARGB8888, 2, 1, {1, 2, 3, 99, 4, 5, 6, 98}, bmp(60, 2, 1, 6, {3, 2, 1, 6, 5, 4, 0, 0})},
        {COLOR_MODE_ABGR8888, 2, 1, {1, 2, 3, 99, 4, 5, 6, 98}, bmp(60, 2, 1, 6, {3, 2, 1, 6, 5, 4, 0, 0})},
        {rgb, 5, 0, {}, bmp(54, 5, 0, 0, {})},
    };
    for (const auto& c : cases) {
        Bytes pixels = c.pixels;
        PictureData picture{pixels.data(), c.width, c.height, c.mode, 0};
        store->savePicture(&picture, "p.bmp");
        EXPECT_EQ(readFile(dir / "p.bmp"), c.file) << c.width << "x" << c.height << " mode " << c.mode;
    }

    // The switch is the marker's presence when the store is made.
    fs::remove(dir / "marker");
    store.reset(PictureStore::createForTest((dir / "marker").string(), dir.string()));
    unsigned char pixel[3] = {1, 2, 3};
    PictureData picture{pixel, 1, 1, rgb, 0};
    store->savePicture(&picture, "off.bmp");
    EXPECT_FALSE(store->enableDumpPicture());
    EXPECT_FALSE(fs::exists(dir / "off.bmp"));
    fs::remove_all(dir);
}

// On a full file system a cut file (rows lost, or even the header) goes with an error line, and
// the next dump that fits is written whole.
TEST(PictureStoreTest, DumpThatDoesNotFitIsLoggedAndRemoved) {
    char tmpl[] = "/tmp/aipq_full_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const fs::path dir = tmpl;
    ASSERT_EQ(mount("tmpfs", tmpl, "tmpfs", 0, "size=16k"), 0) << "needs the test sandbox";
    std::ofstream(dir / "marker") << "x";
    std::unique_ptr<PictureStore> store(PictureStore::createForTest((dir / "marker").string(), dir.string()));
    LogCapture errors(1000);
    Bytes rows(100 * 100 * 3, 7), one = {10, 20, 30};
    korvane::ai::PictureData large{rows.data(), 100, 100, korvane::ai::COLOR_MODE_RGB888, 0};
    korvane::ai::PictureData small{one.data(), 1, 1, korvane::ai::COLOR_MODE_RGB888, 0};
    store->savePicture(&large, "cut.bmp");
    std::ofstream fill(dir / "fill");
    for (const std::string block(4096, 'x'); fill.write(block.data(), block.size());) {
    }
    fill.close();
    store->savePicture(&small, "empty.bmp");
    for (const char* name : {"cut.bmp", "empty.bmp"}) {
        EXPECT_FALSE(fs::exists(dir / name)) << name;
        EXPECT_EQ(errors.count(name), 1) << name;
    }
    fs::remove(dir / "fill");
    store->savePicture(&small, "whole.bmp");
    EXPECT_EQ(readFile(dir / "whole.bmp"), bmp(57, 1, 1, 3, {30, 20, 10, 0}));
    umount(tmpl);
    fs::remove_all(dir);
}

}  // namespace
