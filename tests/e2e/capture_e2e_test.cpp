// Frames from a file through the capture plug-in, and the dump of every frame as BMP.
#include <sys/stat.h>

#include "e2e_harness.h"

namespace e2e {
namespace {

class CaptureE2E : public Harness {};

TEST_F(CaptureE2E, FileSourceGoesThroughThePluginAndEveryFrameIsDumpedFromImageZero) {
    // A clear blue sky, 224 x 224, as a binary PPM.
    std::string pixels;
    for (int y = 0; y < 224; ++y) {
        for (int x = 0; x < 224; ++x) {
            pixels +=
                {static_cast<char>(40 + y / 3 + (x * 7 + y) % 5),
                 static_cast<char>(100 + y / 3 + (x * 3 + y * 5) % 5), static_cast<char>(220 + (x + y) % 7)};
        }
    }
    std::ofstream(m_work + "/sky.ppm", std::ios::binary) << "P6\n224 224\n255\n" << pixels;
    mkdir("/var/local/aipq_dump", 0755);
    std::ofstream("/var/local/aipq_dump/aipq_dump_capture_picture_bmp").close();

    startService();
    startDaemon({"AIPQ_CAPTURE_SOURCE=" + m_work + "/sky.ppm"});
    ASSERT_TRUE(eventually([&] { return predicts() >= 3; })) << m_daemon->output();
    // Found where the daemon looks: the build's lib/ or the installed plug-in directory.
    EXPECT_NE(mapped("/libaipq_capture_files.so"), "");
    stop(*m_daemon);
    // The same scene every time: applied once.
    EXPECT_EQ(pqRows("pq_history"), std::vector<std::vector<int>>{pqRow(telvo_ai_service::Sky)});

    // Bottom-up rows of blue, green, red.
    std::string bmpPixels;
    for (int y = 223; y >= 0; --y) {
        for (int x = 0; x < 224; ++x) {
            const char* p = &pixels[(y * 224 + x) * 3];
            bmpPixels += {p[2], p[1], p[0]};
        }
    }
    int dumps = 0;
    for (std::string bmp;
         !(bmp = readFile("/var/local/aipq_dump/image_" + std::to_string(dumps) + ".bmp")).empty(); ++dumps) {
        ASSERT_EQ(bmp.size(), 54u + 224u * 224u * 3u) << dumps;
        EXPECT_EQ(bmp.substr(0, 6), std::string("BM\x36\x4c\x02\x00", 6)) << "file size, little-endian";
        EXPECT_EQ(bmp.substr(54), bmpPixels) << "image_" << dumps;
    }
    EXPECT_EQ(dumps, m_daemon->count(" captured, ")) << "one numbered file per capture from image_0";
}

}  // namespace
}  // namespace e2e
