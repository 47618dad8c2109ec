#include "picture_store.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "ai_common.h"
#include "log_capture.h"

using korvane::ai::ColorMode;
using korvane::ai::PictureData;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<unsigned char>;

uint32_t le32(const Bytes& b, size_t at) {
    return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 |
           static_cast<uint32_t>(b[at + 2]) << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The 54 header bytes for a picture, with both size fields counting unpadded rows.
Bytes expectedHeader(int width, int height) {
    const uint32_t image = static_cast<uint32_t>(width * 3 * height);
    auto put = [](Bytes& b, uint32_t v, int n) {
        for (int i = 0; i < n; ++i) {
            b.push_back(static_cast<unsigned char>(v >> (8 * i)));
        }
    };
    Bytes h{'B', 'M'};
    put(h, image + 54, 4);
    put(h, 0, 4);
    put(h, 54, 4);
    put(h, 40, 4);
    put(h, static_cast<uint32_t>(width), 4);
    put(h, static_cast<uint32_t>(height), 4);
    put(h, 1, 2);
    put(h, 24, 2);
    put(h, 0, 4);
    put(h, image, 4);
    h.insert(h.end(), 16, 0);  // resolutions and colour counts
    return h;
}

class PictureStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/aipq_store_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        marker = dir / "marker";
        std::ofstream(marker) << "x";
        store.reset(PictureStore::createForTest(marker.string(), dir.string()));
        ASSERT_TRUE(store->enableDumpPicture());
    }
    void TearDown() override { fs::remove_all(dir); }

    Bytes save(Bytes pixels, int width, int height, ColorMode mode, const char* name = "p.bmp") {
        PictureData picture{pixels.data(), width, height, mode, 0};
        store->savePicture(&picture, name);
        return readFile(dir / name);
    }

    fs::path dir;
    fs::path marker;
    std::unique_ptr<PictureStore> store;
};

TEST_F(PictureStoreTest, SinglePixelFileIsByteExact) {
    LogCapture log;
    Bytes file = save({10, 20, 30}, 1, 1, korvane::ai::COLOR_MODE_RGB888);
    Bytes expected = expectedHeader(1, 1);
    expected.insert(expected.end(), {30, 20, 10, 0});
    ASSERT_EQ(file.size(), 58u);
    EXPECT_EQ(file, expected);
    EXPECT_EQ(le32(file, 2), 57u) << "the size field leaves the row padding out";
    EXPECT_EQ(le32(file, 34), 3u);
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] picture: height: 1 width: 1.\n"));
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] fullPath :" + (dir / "p.bmp").string() + "\n"));
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] BMP generating finished.\n"));
}

TEST_F(PictureStoreTest, RowsRunBottomUpAndPadToFourBytes) {
    // 2 x 3, row r pixel c = (r*10 + c*3 + 1, +1, +2).
    Bytes pixels;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 2; ++c) {
            for (int k = 0; k < 3; ++k) {
                pixels.push_back(static_cast<unsigned char>(r * 10 + c * 3 + k + 1));
            }
        }
    }
    Bytes file = save(pixels, 2, 3, korvane::ai::COLOR_MODE_RGB888);
    Bytes expected = expectedHeader(2, 3);
    for (int r = 2; r >= 0; --r) {
        for (int c = 0; c < 2; ++c) {
            for (int k = 2; k >= 0; --k) {
                expected.push_back(static_cast<unsigned char>(r * 10 + c * 3 + k + 1));
            }
        }
        expected.insert(expected.end(), {0, 0});
    }
    EXPECT_EQ(file, expected);
    EXPECT_EQ(file.size(), 54u + 3 * 8);
    EXPECT_EQ(le32(file, 2), 54u + 3 * 6);
}

TEST_F(PictureStoreTest, WidthFourNeedsNoPaddingAndSizeFieldMatches) {
    Bytes pixels(4 * 2 * 3);
    for (size_t i = 0; i < pixels.size(); ++i) {
        pixels[i] = static_cast<unsigned char>(100 + i);
    }
    Bytes file = save(pixels, 4, 2, korvane::ai::COLOR_MODE_RGB888);
    ASSERT_EQ(file.size(), 54u + 24);
    EXPECT_EQ(le32(file, 2), file.size());
    EXPECT_EQ(le32(file, 34), 24u);
    // First stored row is the picture's second row, first pixel reversed.
    EXPECT_EQ(file[54], 114);
    EXPECT_EQ(file[55], 113);
    EXPECT_EQ(file[56], 112);
}

TEST_F(PictureStoreTest, ChannelLayoutsByColourMode) {
    LogCapture log;
    // Four-byte modes drop the fourth byte and reverse the first three.
    for (ColorMode mode : {korvane::ai::COLOR_MODE_ARGB8888, korvane::ai::COLOR_MODE_ABGR8888}) {
        Bytes file = save({1, 2, 3, 99, 4, 5, 6, 98}, 2, 1, mode);
        Bytes expected = expectedHeader(2, 1);
        expected.insert(expected.end(), {3, 2, 1, 6, 5, 4, 0, 0});
        EXPECT_EQ(file, expected) << "mode " << mode;
    }
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] oriWidthStep: 8, destWidthStep: 6.\n"));

    // Mode 3 is already blue-green-red.
    Bytes bgr = save({1, 2, 3, 4, 5, 6}, 2, 1, korvane::ai::COLOR_MODE_BGR888);
    EXPECT_EQ(Bytes(bgr.begin() + 54, bgr.end()), (Bytes{1, 2, 3, 4, 5, 6, 0, 0}));

    // Any other mode counts as three-byte red-green-blue.
    Bytes none = save({1, 2, 3, 4, 5, 6}, 2, 1, korvane::ai::COLOR_MODE_NONE);
    EXPECT_EQ(Bytes(none.begin() + 54, none.end()), (Bytes{3, 2, 1, 6, 5, 4, 0, 0}));
}

TEST_F(PictureStoreTest, DegenerateSizesWriteHeadersOnly) {
    Bytes file = save({}, 5, 0, korvane::ai::COLOR_MODE_RGB888);
    EXPECT_EQ(file, expectedHeader(5, 0));
    file = save({}, 0, 3, korvane::ai::COLOR_MODE_RGB888, "w0.bmp");
    EXPECT_EQ(file, expectedHeader(0, 3));
}

TEST_F(PictureStoreTest, FullPathIsCutAtNinetyNineCharacters) {
    const std::string longName(150, 'a');
    save({1, 2, 3}, 1, 1, korvane::ai::COLOR_MODE_RGB888, longName.c_str());
    const std::string prefix = dir.string() + "/";
    const std::string cut = longName.substr(0, 99 - prefix.size());
    int entries = 0;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path() != marker) {
            ++entries;
            EXPECT_EQ(e.path().filename().string(), cut);
            EXPECT_EQ(fs::file_size(e.path()), 58u);
        }
    }
    EXPECT_EQ(entries, 1);
}

TEST_F(PictureStoreTest, RefusalsLeaveTheDiskAlone) {
    LogCapture log;
    PictureData picture{nullptr, 1, 1, korvane::ai::COLOR_MODE_RGB888, 0};
    store->savePicture(&picture, nullptr);
    store->savePicture(nullptr, "x.bmp");
    EXPECT_EQ(log.count("savePicture(): [AIPQ Common] pPictureData is NULL, or fileName is NULL.\n"), 2);

    fs::remove(marker);
    std::unique_ptr<PictureStore> off(PictureStore::createForTest(marker.string(), dir.string()));
    EXPECT_FALSE(off->enableDumpPicture());
    EXPECT_TRUE(log.contains("PictureStore(): [AIPQ Common] m_enableDumpPictureData :0.\n"));
    unsigned char px[3] = {1, 2, 3};
    picture.buffer = px;
    off->savePicture(&picture, "x.bmp");
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] do not enable dump picture data.\n"));
    EXPECT_FALSE(log.contains("fullPath"));
    EXPECT_TRUE(fs::is_empty(dir));

    // The switch was read at creation: the marker coming back later changes nothing.
    std::ofstream(marker) << "x";
    off->savePicture(&picture, "x.bmp");
    EXPECT_FALSE(fs::exists(dir / "x.bmp"));
}

TEST_F(PictureStoreTest, MissingDirectoryIsLoggedAndSurvived) {
    std::unique_ptr<PictureStore> s(PictureStore::createForTest(marker.string(), (dir / "absent").string()));
    LogCapture log;
    unsigned char px[3] = {1, 2, 3};
    PictureData picture{px, 1, 1, korvane::ai::COLOR_MODE_RGB888, 0};
    s->savePicture(&picture, "x.bmp");
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] Failed to open BMP file.\n"));
    EXPECT_TRUE(log.contains("savePicture(): [AIPQ Common] BMP generating finished.\n"));
    EXPECT_FALSE(fs::exists(dir / "absent"));
}

TEST(PictureStoreInstanceTest, OneInstanceSwitchedByTheFixedMarker) {
    PictureStore* a = PictureStore::getInstance();
    EXPECT_EQ(a, PictureStore::getInstance());
    EXPECT_EQ(a->enableDumpPicture(), fileExist("/var/local/aipq_dump/aipq_dump_capture_picture_bmp"));
}

// ---------------------------------------------------------------------------------------------
// Decoded by ImageMagick, which we did not write: catches a layout that our own byte
// expectations might share with the writer.

std::string realImageMagickConvert() {
    for (const char* candidate :
         {"/usr/bin/convert-im6.q16", "/usr/bin/convert-im7.q16", "/usr/bin/convert"}) {
        std::ifstream in(candidate, std::ios::binary);
        char magic[2] = {0, 0};
        // Scripts that merely stand in for the tool start with "#!".
        if (in.read(magic, 2) && !(magic[0] == '#' && magic[1] == '!')) {
            return candidate;
        }
    }
    return std::string();
}

struct Decoded {
    int width = 0;
    int height = 0;
    Bytes rgb;
};

// Converts to binary PPM: "P6\n<w> <h>\n255\n" followed by packed RGB.
Decoded decodeWithImageMagick(const std::string& convert, const fs::path& bmp) {
    Decoded d;
    const std::string cmd = convert + " BMP:" + bmp.string() + " -depth 8 ppm:- 2>/dev/null";
    FILE* pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr) {
        return d;
    }
    Bytes out;
    unsigned char buf[4096];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof(buf), pipe)) > 0) {
        out.insert(out.end(), buf, buf + n);
    }
    pclose(pipe);
    std::string text(out.begin(), out.end());
    int maxval = 0;
    int consumed = 0;
    if (std::sscanf(text.c_str(), "P6 %d %d %d%n", &d.width, &d.height, &maxval, &consumed) != 3 ||
        maxval != 255) {
        d.width = d.height = 0;
        return d;
    }
    d.rgb.assign(out.begin() + consumed + 1, out.end());
    return d;
}

class PictureStoreDecodeTest : public PictureStoreTest {
protected:
    // Picture in RGB with distinct corners; every other pixel carries its own position.
    static Bytes rgbPicture(int w, int h) {
        Bytes p;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                unsigned char r = static_cast<unsigned char>(20 * x + 1);
                unsigned char g = static_cast<unsigned char>(40 * y + 2);
                unsigned char b = static_cast<unsigned char>(7 * (x + y) + 3);
                if (x == 0 && y == 0) {
                    r = 255, g = 0, b = 0;  // top left red
                } else if (x == w - 1 && y == 0) {
                    r = 0, g = 255, b = 0;  // top right green
                } else if (x == 0 && y == h - 1) {
                    r = 0, g = 0, b = 255;  // bottom left blue
                } else if (x == w - 1 && y == h - 1) {
                    r = 255, g = 255, b = 255;  // bottom right white
                }
                p.insert(p.end(), {r, g, b});
            }
        }
        return p;
    }
};

TEST_F(PictureStoreDecodeTest, ExternalDecoderSeesAnUprightPictureInTheRightColours) {
    const std::string convert = realImageMagickConvert();
    ASSERT_FALSE(convert.empty()) << "ImageMagick is required (scripts/setup.sh installs it)";

    struct Case {
        int w, h;
        ColorMode mode;
    };
    // 5 and 3 wide need row padding; 4 does not.
    for (const Case& c :
         {Case{5, 3, korvane::ai::COLOR_MODE_RGB888}, Case{3, 2, korvane::ai::COLOR_MODE_BGR888},
          Case{4, 3, korvane::ai::COLOR_MODE_ARGB8888}}) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " mode " + std::to_string(c.mode));
        const Bytes rgb = rgbPicture(c.w, c.h);
        Bytes source;
        for (size_t i = 0; i < rgb.size(); i += 3) {
            if (c.mode == korvane::ai::COLOR_MODE_BGR888) {
                source.insert(source.end(), {rgb[i + 2], rgb[i + 1], rgb[i]});
            } else if (c.mode == korvane::ai::COLOR_MODE_ARGB8888) {
                source.insert(source.end(), {rgb[i], rgb[i + 1], rgb[i + 2], 0x7F});
            } else {
                source.insert(source.end(), {rgb[i], rgb[i + 1], rgb[i + 2]});
            }
        }
        save(source, c.w, c.h, c.mode, "decode.bmp");
        const Decoded d = decodeWithImageMagick(convert, dir / "decode.bmp");
        ASSERT_EQ(d.width, c.w);
        ASSERT_EQ(d.height, c.h);
        ASSERT_EQ(d.rgb.size(), rgb.size());
        EXPECT_EQ(Bytes(d.rgb.begin(), d.rgb.begin() + 3), (Bytes{255, 0, 0})) << "top left";
        EXPECT_EQ(Bytes(d.rgb.end() - 3, d.rgb.end()), (Bytes{255, 255, 255})) << "bottom right";
        EXPECT_EQ(d.rgb, rgb);
    }
}

}  // namespace
