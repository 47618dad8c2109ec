// Host frame capture: every source kind, the pixel layout, the copy in the AI service's payload,
// and the file plug-in the capture loads for image and video sources (found beside the test
// binary as beside the daemon: build/lib next to build/tests). The segment key is fixed, so the
// binary re-runs itself in a private IPC namespace.
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
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host_platform.h"
#include "log_capture.h"
#include "osal.h"
#include "picture_capture.h"
#include "reference_classifier.h"

namespace {

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
        unsetenv("AIPQ_CAPTURE_PLUGIN");
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

    // 24 frames at 12 fps with a coloured patch in the middle of a grey picture: red, green, blue,
    // green for six frames each. A change this small is no scene cut for the encoder, so its key
    // frames fall on its fixed group length.
    std::string writeLongGroupVideo() {
        std::string path = dir_ + "/groups.mp4";
        cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('m', 'p', '4', 'v'), 12.0,
                               cv::Size(160, 120));
        EXPECT_TRUE(writer.isOpened());
        const Colour patch[4] = {Colour::Red, Colour::Green, Colour::Blue, Colour::Green};
        for (int i = 0; i < 24; ++i) {
            cv::Mat frame(120, 160, CV_8UC3, cv::Scalar(128, 128, 128));
            frame(cv::Rect(60, 40, 40, 40)).setTo(bgr(patch[i / 6]));
            writer.write(frame);
        }
        return path;
    }

    // Key frame flags of a video's packets, read back through the demuxer.
    static std::vector<bool> keyFrames(const std::string& path) {
        cv::VideoCapture raw(path, cv::CAP_FFMPEG, {cv::CAP_PROP_FORMAT, -1});
        std::vector<bool> keys;
        cv::Mat packet;
        while (raw.read(packet)) {
            keys.push_back(raw.get(cv::CAP_PROP_LRF_HAS_KEY_FRAME) != 0.0);
        }
        return keys;
    }

    static std::vector<uint8_t> readBytes(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

    static void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
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

TEST_F(HostPictureCaptureTest, WritesIntoTheSegmentThatExistsAtEachCapture) {
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    int first = shmget(kKey, 0, 0);
    ASSERT_GE(first, 0);
    // The service side went away and a new segment took the key: the next picture lands there.
    ASSERT_EQ(shmctl(first, IPC_RMID, nullptr), 0);
    int second = shmget(kKey, kSegmentSize, IPC_CREAT | 0666);
    ASSERT_GE(second, 0);
    ASSERT_NE(second, first);
    ASSERT_TRUE(capture.getPicture(true, &picture));
    uint8_t* seg = segment();
    ASSERT_NE(seg, nullptr);
    EXPECT_EQ(0, std::memcmp(seg + 24, picture.buffer, kPictureBytes));
    shmdt(seg);
}

TEST_F(HostPictureCaptureTest, LargeJpegsAreDecodedReducedByTheLargestFactorBothSidesAllow) {
    struct Case {
        const char* file;
        cv::Size size;
        const char* decoded;  // what the capture reports it decoded
    };
    const Case cases[] = {
        {"x8.jpg", cv::Size(1792, 1792), "decoded 224x224 at 1/8,"},
        {"x4.jpg", cv::Size(1791, 1792), "decoded 448x448 at 1/4,"},
        {"x2.jpg", cv::Size(448, 448), "decoded 224x224 at 1/2,"},
        {"x1.jpg", cv::Size(447, 448), "decoded 447x448,"},
        {"wide.jpg", cv::Size(3584, 500), "decoded 1792x250 at 1/2,"},
        {"tall.JPEG", cv::Size(460, 3600), "decoded 230x1800 at 1/2,"},
        // Only the JPEG decoder scales as it decodes; others are read whole and shrunk after.
        {"x8.png", cv::Size(1792, 1792), "decoded 1792x1792,"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        std::string path = writeImage(c.file, c.size, Colour::Red, Colour::Blue);
        setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
        log_.clear();
        PictureCapture capture;
        ASSERT_TRUE(capture.start());
        korvane::ai::PictureData picture{};
        ASSERT_TRUE(capture.getPicture(true, &picture));
        EXPECT_TRUE(log_.contains(c.decoded)) << "expected \"" << c.decoded << "\" in the log";
        EXPECT_EQ(colourAt(picture.buffer, 10, 112), Colour::Red);
        EXPECT_EQ(colourAt(picture.buffer, 213, 112), Colour::Blue);
    }

    // The frame header comes after a 60 KB application segment and a fill byte: its size is still
    // found, so the decode is still reduced.
    std::vector<uint8_t> jpeg =
        readBytes(writeImage("plain.jpg", cv::Size(1792, 1792), Colour::Red, Colour::Blue));
    ASSERT_GT(jpeg.size(), 4u);
    std::vector<uint8_t> segment = {0xFF, 0xEF, 0xEA, 0x62};  // APP15, length 60002
    segment.resize(4 + 60000, 0);
    const uint8_t comment[] = {0xFF, 0xFF, 0xFE, 0x00, 0x04, 'h', 'i'};
    segment.insert(segment.end(), comment, comment + sizeof(comment));
    jpeg.insert(jpeg.begin() + 2, segment.begin(), segment.end());
    writeBytes(dir_ + "/padded.jpg", jpeg);
    setenv("AIPQ_CAPTURE_SOURCE", (dir_ + "/padded.jpg").c_str(), 1);
    log_.clear();
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("decoded 224x224 at 1/8,"));
    EXPECT_EQ(colourAt(picture.buffer, 10, 112), Colour::Red);
    EXPECT_EQ(colourAt(picture.buffer, 213, 112), Colour::Blue);
}

TEST_F(HostPictureCaptureTest, SingleImageIsReadOnceUntilRestart) {
    std::string path = writeImage("still.png", cv::Size(300, 300), Colour::Red, Colour::Red);
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Red);

    // Changed on disk, even removed: the picture read at start stays.
    writeImage("still.png", cv::Size(300, 300), Colour::Blue, Colour::Blue);
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Red);
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Red);

    writeImage("still.png", cv::Size(300, 300), Colour::Green, Colour::Green);
    capture.stop();
    ASSERT_TRUE(capture.start());
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Green);
}

TEST_F(HostPictureCaptureTest, BrokenFileInADirectoryCostsOnlyItsTurn) {
    ASSERT_EQ(0, system(("mkdir -p " + dir_ + "/frames").c_str()));
    writeImage("frames/1.png", cv::Size(64, 64), Colour::Red, Colour::Red);
    std::ofstream(dir_ + "/frames/2.jpg") << "no jpeg at all";
    writeImage("frames/3.jpg", cv::Size(2000, 1000), Colour::Blue, Colour::Blue);
    setenv("AIPQ_CAPTURE_SOURCE", (dir_ + "/frames").c_str(), 1);
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Red);
    std::vector<uint8_t> before(picture.buffer, picture.buffer + kPictureBytes);
    EXPECT_FALSE(capture.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("cannot read image " + dir_ + "/frames/2.jpg"));
    // The failed read left the last picture alone.
    EXPECT_EQ(0, std::memcmp(picture.buffer, before.data(), kPictureBytes));
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Blue);
    EXPECT_TRUE(log_.contains("decoded 500x250 at 1/4."));
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Red);
}

TEST_F(HostPictureCaptureTest, LongGroupVideoShowsTheKeyFrameAtOrBeforeThePlayPosition) {
    std::string path = writeLongGroupVideo();
    std::vector<bool> keys = keyFrames(path);
    ASSERT_EQ(keys.size(), 24u);
    ASSERT_TRUE(keys[0]);
    const Colour patch[4] = {Colour::Red, Colour::Green, Colour::Blue, Colour::Green};
    // What is on screen at each frame, and what the last key frame up to it shows.
    Colour exact[24];
    Colour fromKey[24];
    for (int i = 0, key = 0; i < 24; ++i) {
        key = keys[i] ? i : key;
        exact[i] = patch[i / 6];
        fromKey[i] = patch[key / 6];
    }
    int telling = 0;
    for (int i = 0; i < 24; ++i) {
        telling += exact[i] != fromKey[i];
    }
    ASSERT_GT(telling, 0) << "every frame is a key frame: this video cannot tell a key frame seek";

    host::setTimeScale(2.5);
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    PictureCapture capture;
    double beforeStart = uptime();
    ASSERT_TRUE(capture.start());
    double afterStart = uptime();
    std::set<Colour> colours;
    int toldApart = 0;
    bool wrapped = false;
    for (int i = 0; i < 120 && !(wrapped && toldApart > 0 && colours.size() >= 2); ++i) {
        korvane::ai::PictureData picture{};
        double t0 = uptime();
        ASSERT_TRUE(capture.getPicture(true, &picture));
        double t1 = uptime();
        Colour got = colourAt(picture.buffer, 112, 112);
        std::set<Colour> possible;
        bool onlyTelling = true;
        for (double pos = t0 - afterStart - 0.1; pos <= t1 - beforeStart + 0.1; pos += 0.02) {
            long frame = static_cast<long>(std::max(0.0, pos) * 12) % 24;
            possible.insert(fromKey[frame]);
            onlyTelling = onlyTelling && exact[frame] != fromKey[frame];
        }
        EXPECT_TRUE(possible.count(got))
            << "capture " << i << " got " << name(got) << " at " << t0 - afterStart << " s";
        toldApart += onlyTelling;
        colours.insert(got);
        wrapped = t0 - afterStart > 2.2;  // past the end of the 2 s video
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    EXPECT_GT(toldApart, 0) << "no capture fell where the exact frame differs from its key frame";
    EXPECT_TRUE(wrapped);
    EXPECT_GE(colours.size(), 2u);
}

TEST_F(HostPictureCaptureTest, VideoKeepsThePictureWhileThePlayPositionStaysInOneGroup) {
    std::string path = dir_ + "/clip.avi";
    {
        cv::VideoWriter writer(path, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0, cv::Size(160, 120));
        ASSERT_TRUE(writer.isOpened());
        for (int i = 0; i < 10; ++i) {
            writer.write(cv::Mat(120, 160, CV_8UC3, bgr(i < 5 ? Colour::Red : Colour::Blue)));
        }
    }
    host::setTimeScale(1e-6);  // the play position hardly moves: every capture is at frame 0
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    PictureCapture capture;
    ASSERT_TRUE(capture.start());
    korvane::ai::PictureData picture{};
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("frame decoded from the keyframe"));
    std::vector<uint8_t> first(picture.buffer, picture.buffer + kPictureBytes);
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Red);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(capture.getPicture(true, &picture));
        EXPECT_EQ(0, std::memcmp(picture.buffer, first.data(), kPictureBytes)) << i;
    }
    EXPECT_EQ(log_.count("same keyframe as before, picture kept"), 3);
    EXPECT_EQ(log_.count("frame decoded from the keyframe"), 1);

    // A restart reopens the video: nothing is kept across it.
    capture.stop();
    ASSERT_TRUE(capture.start());
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(log_.count("frame decoded from the keyframe"), 2);
}

TEST_F(HostPictureCaptureTest, MissingOrForeignPluginFailsWithALogLineUntilTheRealOneIsFound) {
    std::string path = writeImage("scene.png", cv::Size(224, 224), Colour::Green, Colour::Green);
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    korvane::ai::PictureData picture{};

    setenv("AIPQ_CAPTURE_PLUGIN", (dir_ + "/nowhere.so").c_str(), 1);
    PictureCapture capture;
    EXPECT_FALSE(capture.start());
    EXPECT_FALSE(capture.getPicture(true, &picture));
    EXPECT_EQ(picture.buffer, nullptr);
    EXPECT_GE(log_.count("needs the capture plug-in: " + dir_ + "/nowhere.so"), 2) << "no reason logged";

    // A file that is no library, and a library that is no capture plug-in.
    std::ofstream(dir_ + "/garbage.so") << "not an ELF file";
    setenv("AIPQ_CAPTURE_PLUGIN", (dir_ + "/garbage.so").c_str(), 1);
    log_.clear();
    EXPECT_FALSE(capture.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("needs the capture plug-in: " + dir_ + "/garbage.so"));
    setenv("AIPQ_CAPTURE_PLUGIN", "libm.so.6", 1);
    log_.clear();
    EXPECT_FALSE(capture.getPicture(true, &picture));
    EXPECT_TRUE(log_.contains("libm.so.6 is not a capture plug-in"));

    // The built-in scenes never need it.
    unsetenv("AIPQ_CAPTURE_SOURCE");
    PictureCapture scenes;
    EXPECT_TRUE(scenes.start());
    EXPECT_TRUE(scenes.getPicture(true, &picture));

    // Without the override the plug-in is found beside this binary, and capture resumes.
    setenv("AIPQ_CAPTURE_SOURCE", path.c_str(), 1);
    unsetenv("AIPQ_CAPTURE_PLUGIN");
    log_.clear();
    ASSERT_TRUE(capture.getPicture(true, &picture));
    EXPECT_EQ(colourAt(picture.buffer, 112, 112), Colour::Green);
    EXPECT_TRUE(log_.contains("/lib/libaipq_capture_files.so loaded."));
}

}  // namespace
