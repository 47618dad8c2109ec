// Marker files switch frame dumps and the overlay on for the life of the daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"

using namespace std::chrono_literals;

namespace {

const std::string kBin = AIPQ_BIN_DIR;
const std::string kDumpDir = "/var/local/aipq_dump";

std::vector<std::string> env() {
    return {"AIPQ_TV_DIR=/var/run/aipq_tv", "AIPQ_TIME_SCALE=5", "AIPQ_CAPTURE_SOURCE="};
}

void watchingTv() {
    std::string out;
    ASSERT_EQ(runCommand("AIPQ_TV_DIR=/var/run/aipq_tv " + kBin + "/tvctl preset watching", &out), 0) << out;
    std::ofstream("/var/run/BIZREADY2").close();
}

uint32_t le32(const std::vector<unsigned char>& b, size_t off) {
    return b[off] | (b[off + 1] << 8) | (b[off + 2] << 16) | (static_cast<uint32_t>(b[off + 3]) << 24);
}

std::vector<unsigned char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(DebugDumpE2E, DumpsAreNumberedFromZeroOnePerCapture) {
    watchingTv();
    mkdir(kDumpDir.c_str(), 0755);
    std::ofstream(kDumpDir + "/aipq_dump_capture_picture_bmp").close();
    ChildProcess service({kBin + "/ai_service"}, env());
    ChildProcess daemon({kBin + "/ai_manager"}, env());
    ASSERT_TRUE(daemon.waitForOutput("getPicture, ret: 1.", 30s, 3)) << daemon.output();
    daemon.signal(SIGTERM);
    ASSERT_EQ(daemon.wait(30s), 0);

    int captures = daemon.count("getPicture, ret: 1.");
    for (int i = 0; i < captures; ++i) {
        std::vector<unsigned char> bmp = readFile(kDumpDir + "/image_" + std::to_string(i) + ".bmp");
        ASSERT_EQ(bmp.size(), 54u + 224u * 224u * 3u) << "image_" << i;
        EXPECT_EQ(bmp[0], 'B');
        EXPECT_EQ(bmp[1], 'M');
        EXPECT_EQ(le32(bmp, 18), 224u);
        EXPECT_EQ(le32(bmp, 22), 224u);
    }
    struct stat st;
    EXPECT_NE(stat((kDumpDir + "/image_" + std::to_string(captures) + ".bmp").c_str(), &st), 0)
        << "one file per capture, no more";
}

TEST(DebugDumpE2E, WithoutTheMarkerNothingIsWritten) {
    watchingTv();
    mkdir(kDumpDir.c_str(), 0755);
    ChildProcess service({kBin + "/ai_service"}, env());
    ChildProcess daemon({kBin + "/ai_manager"}, env());
    ASSERT_TRUE(daemon.waitForOutput("getPicture, ret: 1.", 30s, 2)) << daemon.output();
    // The marker appearing later changes nothing: it is read once.
    std::ofstream(kDumpDir + "/aipq_dump_capture_picture_bmp").close();
    ASSERT_TRUE(daemon.waitForOutput("getPicture, ret: 1.", 30s, 4)) << daemon.output();
    daemon.signal(SIGTERM);
    ASSERT_EQ(daemon.wait(30s), 0);
    EXPECT_GE(daemon.count("do not enable dump picture."), 4);
    std::string out;
    runCommand("ls -A " + kDumpDir, &out);
    EXPECT_EQ(out, "aipq_dump_capture_picture_bmp\n");
}

TEST(DebugDumpE2E, OverlayWithoutADisplayIsLoggedAndRecognitionGoesOn) {
    watchingTv();
    std::ofstream("/var/local/aipq_show_debug_window_enable").close();
    std::vector<std::string> e = env();
    e.push_back("DISPLAY=");
    e.push_back("DFBARGS=system=x11,no-banner,quiet");
    ChildProcess service({kBin + "/ai_service"}, e);
    ChildProcess daemon({kBin + "/ai_manager"}, e);
    ASSERT_TRUE(daemon.waitForOutput("create debug window.", 30s)) << daemon.output();
    ASSERT_TRUE(daemon.waitForOutput("recognitionPicture ret: 0.", 30s, 3)) << daemon.output();
    EXPECT_TRUE(daemon.running());
    EXPECT_GE(daemon.count("Failed to create display."), 1);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(30s), 0) << daemon.output();
}

}  // namespace
