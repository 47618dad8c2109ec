// Pictures from files through the capture plug-in: the right frame of each source, red-green-blue.
// Where the pixels land for the AI service is the platform contract's business (tests/contract).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>
#include <string>

#include "picture_capture.h"

namespace {

const cv::Scalar kRed(0, 0, 230), kGreen(0, 230, 0), kBlue(230, 0, 0);  // OpenCV order: B, G, R

// Left half one colour, right half another.
cv::Mat halves(cv::Size size, cv::Scalar left, cv::Scalar right) {
    cv::Mat image(size, CV_8UC3, left);
    image(cv::Rect(size.width / 2, 0, size.width - size.width / 2, size.height)).setTo(right);
    return image;
}

// 'R', 'G' or 'B' for a pixel dominated by that channel, '?' otherwise.
char colourAt(const uint8_t* rgb, int x, int y) {
    const uint8_t* p = rgb + (static_cast<size_t>(y) * 224 + x) * 3;
    for (int c = 0; c < 3; ++c) {
        if (p[c] > 150 && p[(c + 1) % 3] < 100 && p[(c + 2) % 3] < 100) {
            return "RGB"[c];
        }
    }
    return '?';
}

TEST(HostPictureCaptureTest, EachFileSourceGivesItsFramesInOrder) {
    char tmpl[] = "/tmp/aipq_capture_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    std::filesystem::create_directory(dir + "/frames");
    ASSERT_TRUE(cv::imwrite(dir + "/frames/b.png", halves(cv::Size(100, 100), kRed, kBlue)));
    ASSERT_TRUE(cv::imwrite(dir + "/frames/a.jpg", halves(cv::Size(640, 480), kGreen, kGreen)));
    {
        cv::VideoWriter video(dir + "/clip.avi", cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 10.0,
                              cv::Size(160, 120));
        ASSERT_TRUE(video.isOpened());
        for (int i = 0; i < 10; ++i) {
            video.write(halves(cv::Size(160, 120), kBlue, kRed));
        }
    }
    const struct {
        const char* source;
        std::string leftRight;  // per capture: colours at the middle of the left and right edge
    } cases[] = {
        {"frames", "GGRBGG"},  // name order, then round again
        {"clip.avi", "BR"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source);
        setenv("AIPQ_CAPTURE_SOURCE", (dir + "/" + c.source).c_str(), 1);
        PictureCapture capture;
        ASSERT_TRUE(capture.start());
        for (size_t i = 0; i < c.leftRight.size(); i += 2) {
            korvane::ai::PictureData picture{};
            ASSERT_TRUE(capture.getPicture(true, &picture));
            ASSERT_EQ(picture.width * picture.height, 224 * 224);
            EXPECT_EQ(picture.colorMode, korvane::ai::COLOR_MODE_RGB888);
            const std::string got = {colourAt(picture.buffer, 5, 112), colourAt(picture.buffer, 218, 112)};
            EXPECT_EQ(got, c.leftRight.substr(i, 2)) << "capture " << i / 2;
        }
    }
    unsetenv("AIPQ_CAPTURE_SOURCE");
    std::filesystem::remove_all(dir);
}

}  // namespace
