// The real daemon maps the image and video libraries only once a file source asks for them: on the
// built-in scenes its process must not hold OpenCV or FFmpeg at all, and without the file plug-in
// it carries on, logging why there is no picture.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"

using namespace std::chrono_literals;

namespace {

const std::string kBin = AIPQ_BIN_DIR;
const std::string kTvDir = "/var/run/aipq_tv";
const char* const kFileLibraries[] = {"libopencv", "libavcodec", "libavformat", "libswscale",
                                      "libaipq_capture_files"};

std::string maps(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/maps");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The mapping lines that name `library`.
std::string mappingsOf(const std::string& maps, const std::string& library) {
    std::istringstream in(maps);
    std::string found;
    for (std::string line; std::getline(in, line);) {
        if (line.find(library) != std::string::npos) {
            found += line + "\n";
        }
    }
    return found;
}

void writeImage(const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    out << "P6\n224 224\n255\n";
    for (int i = 0; i < 224 * 224; ++i) {
        out.write("\x30\x70\xe0", 3);
    }
}

class CapturePluginE2E : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("AIPQ_SANDBOXED"), nullptr);
        std::string out;
        ASSERT_EQ(runCommand("AIPQ_TV_DIR=" + kTvDir + " " + kBin + "/tvctl preset watching", &out), 0)
            << out;
        std::ofstream("/var/run/BIZREADY2").close();
        char pattern[] = "/tmp/aipq_plugin_e2e_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        work_ = pattern;
    }
    void TearDown() override { runCommand("rm -rf " + work_); }

    static std::vector<std::string> env(const std::string& source, const std::string& plugin = "") {
        return {"AIPQ_TV_DIR=" + kTvDir, "AIPQ_TIME_SCALE=10", "AIPQ_LOG_LEVEL=4000",
                "AIPQ_CAPTURE_SOURCE=" + source, "AIPQ_CAPTURE_PLUGIN=" + plugin};
    }

    static void stop(ChildProcess& daemon) {
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.wait(30s), 0) << daemon.output();
    }

    std::string work_;
};

TEST_F(CapturePluginE2E, BuiltInScenesLeaveTheFileLibrariesUnmapped) {
    ChildProcess service({kBin + "/ai_service"}, env(""));
    ChildProcess daemon({kBin + "/ai_manager"}, env(""));
    ASSERT_TRUE(daemon.waitForOutput("getPicture, ret: 1.", 30s, 2)) << daemon.output();
    std::string mapped = maps(daemon.pid());
    ASSERT_NE(mapped.find("libc.so"), std::string::npos) << "cannot see the daemon's mappings:\n" << mapped;
    for (const char* library : kFileLibraries) {
        EXPECT_EQ(mappingsOf(mapped, library), "") << library << " is mapped into the daemon";
    }
    EXPECT_EQ(daemon.count("capture plug-in"), 0);
    stop(daemon);
}

TEST_F(CapturePluginE2E, FileSourceLoadsThePluginBesideTheDaemon) {
    writeImage(work_ + "/sky.ppm");
    ChildProcess service({kBin + "/ai_service"}, env(work_ + "/sky.ppm"));
    ChildProcess daemon({kBin + "/ai_manager"}, env(work_ + "/sky.ppm"));
    ASSERT_TRUE(daemon.waitForOutput("getPicture, ret: 1.", 30s, 2)) << daemon.output();
    std::string mapped = maps(daemon.pid());
    // Found through the daemon's own location: bin/../lib.
    EXPECT_NE(mappingsOf(mapped, "/lib/libaipq_capture_files.so"), "") << mapped;
    EXPECT_NE(mappingsOf(mapped, "libopencv_imgcodecs"), "") << mapped;
    EXPECT_EQ(daemon.count("libaipq_capture_files.so loaded."), 1) << daemon.output();
    stop(daemon);
}

TEST_F(CapturePluginE2E, WithoutThePluginTheDaemonLogsEveryFailedCaptureAndCarriesOn) {
    writeImage(work_ + "/sky.ppm");
    std::vector<std::string> e = env(work_ + "/sky.ppm", work_ + "/missing.so");
    ChildProcess service({kBin + "/ai_service"}, e);
    ChildProcess daemon({kBin + "/ai_manager"}, e);
    ASSERT_TRUE(daemon.waitForOutput("getPicture, ret: 0.", 30s, 2)) << daemon.output();
    EXPECT_GE(daemon.count("needs the capture plug-in: " + work_ + "/missing.so"), 2) << daemon.output();
    EXPECT_EQ(daemon.count("getPicture, ret: 1."), 0);
    EXPECT_TRUE(daemon.running());
    for (const char* library : kFileLibraries) {
        EXPECT_EQ(mappingsOf(maps(daemon.pid()), library), "") << library;
    }
    stop(daemon);
}

}  // namespace
