// Host frame capture: every source kind, the pixel layout, and the copy in the AI service's
// payload. The segment key is fixed, so the binary re-runs itself in a private IPC namespace.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host_platform.h"
#include "sandbox_reexec.h"
#include "log_capture.h"
#include "osal.h"
#include "picture_capture.h"
#include "reference_classifier.h"

namespace {

AIPQ_TESTS_RUN_IN_SANDBOX();

constexpr int kKey = 72314;
constexpr size_t kSegmentSize = 150552;
constexpr size_t kPictureBytes = 224 * 224 * 3;

enum class Colour { Red, Green, Blue, Other };

const char* name(Colour c) {
    switch (c) {
        case Colour::Red:
            return "red";
        case Colour::Green:
            return "green";
        case Colour::Blue:
            return "blue";
        default:
            return "other";
    }
}

// Dominant channel of the pixel at (x, y) of an RGB picture.
Colour colourAt(const uint8_t* rgb, int x, int y) {
    const uint8_t* p = rgb + (static_cast<size_t>(y) * 224 + x) * 3;
    if (p[0] > 150 && p[1] < 100 && p[2] < 100) {
        return Colour::Red;
    }
    if (p[1] > 150 && p[0] < 100 && p[2] < 100) {
        return Colour::Green;
    }
    if (p[2] > 150 && p[0] < 100 && p[1] < 100) {
        return Colour::Blue;
    }
    return Colour::Other;
}

cv::Scalar bgr(Colour c) {
    switch (c) {
        case Colour::Red:
            return cv::Scalar(0, 0, 230);
        case Colour::Green:
            return cv::Scalar(0, 230, 0);
        default:
            return cv::Scalar(230, 0, 0);
    }
}

double uptime() {
    OsalTime t;
    osalGetUptime(&t);
    return static_cast<double>(t.seconds) + t.microseconds / 1e6;
}

class HostPictureCaptureTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/aipq_capture_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        removeSegment();
    }
    void TearDown() override {
        unsetenv("AIPQ_CAPTURE_SOURCE");
        host::setTimeScale(1.0);
        std::system(("rm -rf " + dir_).c_str());
        removeSegment();
    }

    static void removeSegment() {
        int id = shmget(kKey, 0, 0);
        if (id >= 0) {
            shmctl(id, IPC_RMID, nullptr);
        }
    }

    static uint8_t* segment() {
        int id = shmget(kKey, kSegmentSize, 0666);
        if (id < 0) {
            return nullptr;
        }
        void* addr = shmat(id, nullptr, 0);
        return addr == reinterpret_cast<void*>(-1) ? nullptr : static_cast<uint8_t*>(addr);
    }

    std::string writeImage(const std::string& file, cv::Size size, Colour left, Colour right) {
        cv::Mat image(size, CV_8UC3, bgr(left));
        image(cv::Rect(size.width / 2, 0, size.width - size.width / 2, size.height)).setTo(bgr(right));
        std::string path = dir_ + "/" + file;
        EXPECT_TRUE(cv::imwrite(path, image));
        return path;
    }

    std::string dir_;
    LogCapture log_{5000};
};

TEST_F(HostPictureCaptureTest, ImageFileIsScaledToRgb224AndCopiedIntoThePayload) {
    std::string path = writeImage("scene.png", cv::Size(320, 200), Colour::Red, Colour::Blue);
    // A daemon's header is already there: the capture must only touch the payload.
    int id = shmget(kKey, kSegmentSize, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    uint8_t* seg = segment();
    ASSERT_NE(seg, nullptr);
    std::memset(seg, 0x5A, 24);

    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    ASSERT_NE(picture.buffer, nullptr);
    EXPECT_EQ(picture.width, 224);
    EXPECT_EQ(picture.height, 224);
    EXPECT_EQ(picture.colorMode, korvane::ai::COLOR_MODE_RGB888);
    // Red on the left, blue on the right, in red-green-blue byte order, corners included.
    EXPECT_EQ(colourAt(picture.buffer, 0, 0), Colour::Red);
    EXPECT_EQ(colourAt(picture.buffer, 100, 223), Colour::Red);
    EXPECT_EQ(colourAt(picture.buffer, 123, 0), Colour::Blue);
    EXPECT_EQ(colourAt(picture.buffer, 223, 223), Colour::Blue);

    EXPECT_EQ(0, std::memcmp(seg + 24, picture.buffer, kPictureBytes));
    for (int i = 0; i < 24; ++i) {
        ASSERT_EQ(seg[i], 0x5A) << "header byte " << i << " overwritten";
    }
    shmdt(seg);
}

TEST_F(HostPictureCaptureTest, DirectoryIsTakenInNameOrderAndWraps) {
    ASSERT_EQ(0, system(("mkdir -p " + dir_ + "/frames").c_str()));
    writeImage("frames/b.png", cv::Size(224, 224), Colour::Green, Colour::Green);
    writeImage("frames/a.png", cv::Size(100, 100), Colour::Red, Colour::Red);
    writeImage("frames/c.bmp", cv::Size(640, 480), Colour::Blue, Colour::Blue);
    std::ofstream(dir_ + "/frames/notes.txt") << "not a picture";
    setenv("AIPQ_CAPTURE_SOURCE", (dir_ + "/frames").c_str(), 1);
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    std::vector<Colour> seen;
    for (int i = 0; i < 5; ++i) {
        korvane::ai::PictureData picture{};
        ASSERT_TRUE(capture.getPicture(true, &picture)) << i;
        seen.push_back(colourAt(picture.buffer, 112, 112));
    }
    EXPECT_EQ(seen,
              (std::vector<Colour>{Colour::Red, Colour::Green, Colour::Blue, Colour::Red, Colour::Green}));
}

TEST_F(HostPictureCaptureTest, VideoGivesTheFrameAtThePlayPositionAndLoops) {
    // 3 s at 10 fps: a second each of red, green, blue.
    std::string path = dir_ + "/clip.avi";
    {
        cv::VideoWriter writer(path, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0, cv::Size(160, 120));
        ASSERT_TRUE(writer.isOpened());
        for (int i = 0; i < 30; ++i) {
            writer.write(cv::Mat(120, 160, CV_8UC3,
                                 bgr(i < 10   ? Colour::Red
                                     : i < 20 ? Colour::Green
                                              : Colour::Blue)));
        }
    }
    host::setTimeScale(10.0);  // play position follows the (scaled) uptime
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    PictureCapture capture;
    double beforeStart = uptime();
    ASSERT_TRUE(capture.start());
    double afterStart = uptime();

    std::set<Colour> colours;
    bool wrapped = false;
    Colour last = Colour::Other;
    for (int i = 0; i < 40 && !(wrapped && colours.size() == 3); ++i) {
        korvane::ai::PictureData picture{};
        double t0 = uptime();
        ASSERT_TRUE(capture.getPicture(true, &picture));
        double t1 = uptime();
        Colour got = colourAt(picture.buffer, 112, 112);
        // Every frame the play position can have been at during the call, one frame of slack.
        std::set<Colour> possible;
        for (double pos = t0 - afterStart - 0.1; pos <= t1 - beforeStart + 0.1; pos += 0.05) {
            long frame = static_cast<long>(std::max(0.0, pos) * 10) % 30;
            possible.insert(frame < 10 ? Colour::Red : frame < 20 ? Colour::Green : Colour::Blue);
        }
        EXPECT_TRUE(possible.count(got))
            << "capture " << i << " got " << name(got) << " at " << t0 - afterStart << " s";
        colours.insert(got);
        wrapped = wrapped || (last == Colour::Blue && got == Colour::Red);
        last = got;
        std::this_thread::sleep_for(std::chrono::milliseconds(35));
    }
    EXPECT_EQ(colours.size(), 3u);
    EXPECT_TRUE(wrapped) << "never came back to the start";
}

TEST_F(HostPictureCaptureTest, BuiltInScenesRotateDeterministicallyAndClassify) {
    unsetenv("AIPQ_CAPTURE_SOURCE");
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    std::vector<std::vector<uint8_t>> pictures;
    for (int i = 0; i < 8; ++i) {
        korvane::ai::PictureData picture{};
        ASSERT_TRUE(capture.getPicture(true, &picture));
        pictures.emplace_back(picture.buffer, picture.buffer + kPictureBytes);
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(pictures[i], pictures[i + 4]) << "scene " << i << " differs on its second turn";
        EXPECT_NE(pictures[i], pictures[(i + 1) % 4]);
    }
    PictureCapture other;
    ASSERT_TRUE(other.start());
    korvane::ai::PictureData first{};
    ASSERT_TRUE(other.getPicture(true, &first));
    EXPECT_EQ(0, std::memcmp(first.buffer, pictures[0].data(), kPictureBytes)) << "not deterministic";

    const telvo_ai_service::AiPQPredictLabel expected[4] = {
        telvo_ai_service::Sky, telvo_ai_service::Grassland, telvo_ai_service::Snow,
        telvo_ai_service::Cartoon};
    ai_service::ReferenceClassifier classifier;
    for (int i = 0; i < 4; ++i) {
        ai_service::Predictions p;
        std::string error;
        ASSERT_TRUE(classifier.classify(pictures[i].data(), &p, &error));
        EXPECT_EQ(p[0].label, expected[i])
            << "scene " << i << " read as " << ai_service::labelText(p[0].label);
        EXPECT_GE(p[0].confidence, 0.5f);
    }
}

TEST_F(HostPictureCaptureTest, UnreadableSourcesFailWithALogLineAndRecover) {
    std::string path = dir_ + "/later.png";
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    PictureCapture capture;
    EXPECT_FALSE(capture.start());
    korvane::ai::PictureData picture{};
    EXPECT_FALSE(capture.getPicture(true, &picture));
    EXPECT_EQ(picture.buffer, nullptr);
    EXPECT_TRUE(log_.contains("later.png does not exist"));
    EXPECT_FALSE(capture.getPicture(true, nullptr));

    // A file that is no image.
    std::ofstream(path) << "garbage";
    log_.clear();
    EXPECT_FALSE(capture.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("cannot read image")) << "no reason logged";

    // The source turns up: the next capture works without a restart.
    writeImage("later.png", cv::Size(50, 50), Colour::Green, Colour::Green);
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 5, 5), Colour::Green);

    setenv("AIPQ_CAPTURE_SOURCE", (dir_ + "/empty_dir").c_str(), 1);
    ASSERT_EQ(0, system(("mkdir -p " + dir_ + "/empty_dir").c_str()));
    PictureCapture empty;
    EXPECT_FALSE(empty.start());
    EXPECT_FALSE(empty.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("holds no image files"));
}

TEST_F(HostPictureCaptureTest, CreatesTheSegmentWhenItComesFirst) {
    ASSERT_LT(shmget(kKey, 0, 0), 0);
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    int id = shmget(kKey, 0, 0);
    ASSERT_GE(id, 0);
    struct shmid_ds info;
    ASSERT_EQ(shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_segsz, kSegmentSize);
    uint8_t* seg = segment();
    ASSERT_NE(seg, nullptr);
    EXPECT_EQ(0, std::memcmp(seg + 24, picture.buffer, kPictureBytes));
    shmdt(seg);
}

}  // namespace
