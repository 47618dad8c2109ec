// The debug overlay drawn by the real DirectFB into a private Xvfb (scripts/overlay_xvfb.sh),
// checked on screenshots of the whole screen.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "aipq_display.h"
#include "child_process.h"
#include "dfb_utils.h"
#include "graphic_context.h"
#include "window_context_dfb.h"

namespace {

using korvane::aipq::AIPQDisplay;

struct Rgb {
    int r, g, b;
};

bool near(const Rgb& a, const Rgb& b, int tolerance) {
    return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
           std::abs(a.b - b.b) <= tolerance;
}

const Rgb kBlack{0, 0, 0};
const Rgb kPanel{75, 75, 75};  // 0x80 grey at alpha 0x96 over the black of the layer
const Rgb kRed{255, 0, 0};
// The picture's quadrants as the camera saw them: top left, top right, bottom left, bottom right.
const Rgb kQuadrant[4] = {{230, 40, 20}, {20, 200, 60}, {30, 60, 220}, {240, 220, 30}};
constexpr int kSide = 224;

int script(const std::string& args, std::string* out = nullptr) {
    return runCommand(std::string(AIPQ_OVERLAY_SCRIPT) + " " + args, out);
}

class Screenshot {
public:
    explicit Screenshot(const std::string& path) : m_image(cv::imread(path, cv::IMREAD_COLOR)) {}
    bool empty() const { return m_image.cols != 1920 || m_image.rows != 1080; }
    Rgb at(int x, int y) const {
        const cv::Vec3b& p = m_image.at<cv::Vec3b>(y, x);
        return Rgb{p[2], p[1], p[0]};
    }
    // Pixels in [x0, x1) x [y0, y1) with every channel above `threshold`.
    int brightIn(int x0, int y0, int x1, int y1, int threshold = 200) const {
        int n = 0;
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
                Rgb c = at(x, y);
                n += c.r > threshold && c.g > threshold && c.b > threshold;
            }
        }
        return n;
    }

private:
    cv::Mat m_image;
};

struct Probe {
    int x, y;
    Rgb want;
};

class OverlayX11Test : public ::testing::Test {
protected:
    // DirectFB starts once per process, so the server and the display live as long as the suite.
    static void SetUpTestSuite() {
        char dir[] = "/tmp/aipq_overlay_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        s_dir = dir;
        setenv("AIPQ_OVERLAY_STATE", (s_dir + "/xvfb").c_str(), 1);
        setenv("FONTFILE", "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", 1);
        unsetenv("DISPLAY");
        std::string out;
        s_started = script("start", &out) == 0;
        std::istringstream settings(out);
        for (std::string line; std::getline(settings, line);) {
            size_t eq = line.find('=');
            if (line.rfind("export ", 0) == 0 && eq != std::string::npos) {
                setenv(line.substr(7, eq - 7).c_str(), line.substr(eq + 1).c_str(), 1);
            }
        }
        if (s_started) {
            s_display = AIPQDisplay::create();
        }
    }
    static void TearDownTestSuite() {
        // Xlib ends the process when its server goes away under it.
        if (IDirectFB* dfb = s_display ? korvane::getDFB() : nullptr) {
            s_display.reset();
            dfb->Release(dfb);
        }
        script("stop");
        runCommand("rm -rf " + s_dir);
    }
    void SetUp() override {
        if (!s_started) {
            GTEST_SKIP() << "Xvfb cannot start here";
        }
        ASSERT_TRUE(s_display) << "no overlay on a running Xvfb";
        m_picture.resize(kSide * kSide * 3);
        for (int i = 0; i < kSide * kSide; ++i) {
            const Rgb& c = kQuadrant[(i / kSide >= kSide / 2 ? 2 : 0) + (i % kSide >= kSide / 2 ? 1 : 0)];
            // Blue first, as the controller hands it over.
            m_picture[i * 3] = static_cast<unsigned char>(c.b);
            m_picture[i * 3 + 1] = static_cast<unsigned char>(c.g);
            m_picture[i * 3 + 2] = static_cast<unsigned char>(c.r);
        }
    }

    // Drawing reaches the X server a little later: shoots until `ready` holds or time runs out.
    Screenshot shotWhen(const std::function<bool(const Screenshot&)>& ready) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (;;) {
            const std::string path = s_dir + "/shot_" + std::to_string(++s_shots) + ".png";
            script("shot " + path);
            Screenshot shot(path);
            if ((!shot.empty() && ready(shot)) || std::chrono::steady_clock::now() > end) {
                EXPECT_FALSE(shot.empty()) << "no screenshot in " << s_dir;
                return shot;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    }
    static std::function<bool(const Screenshot&)> colourAt(int x, int y, const Rgb& want) {
        return [=](const Screenshot& s) { return near(s.at(x, y), want, 8); };
    }
    static void expectColours(const Screenshot& shot, const std::vector<Probe>& probes) {
        for (const Probe& p : probes) {
            Rgb got = shot.at(p.x, p.y);
            EXPECT_TRUE(near(got, p.want, 10))
                << "at (" << p.x << "," << p.y << ") got (" << got.r << "," << got.g << "," << got.b << ")";
        }
    }
    void show() {
        std::string text = "AIPQ OVERLAY\nSecond line";
        s_display->setupTextObject(text, 5);
        s_display->setupImageObject(m_picture.data(), kSide, kSide);
        s_display->Show();
    }

    static std::string s_dir;
    static bool s_started;
    static int s_shots;
    static std::shared_ptr<AIPQDisplay> s_display;
    std::vector<unsigned char> m_picture;
};

std::string OverlayX11Test::s_dir;
bool OverlayX11Test::s_started = false;
int OverlayX11Test::s_shots = 0;
std::shared_ptr<AIPQDisplay> OverlayX11Test::s_display;

// Text lines on screen: the first stands on y 300, the second one line lower.
void expectTwoTextLinesFrom900(const Screenshot& shot) {
    EXPECT_GT(shot.brightIn(900, 268, 1500, 304), 100);
    EXPECT_GT(shot.brightIn(900, 304, 1500, 350), 100);
    EXPECT_EQ(shot.brightIn(880, 260, 900, 360), 0);
    EXPECT_EQ(shot.brightIn(880, 360, 1800, 1080), 0);
    EXPECT_EQ(shot.brightIn(900, 0, 1800, 268, 250), 0);
}

TEST_F(OverlayX11Test, PanelBackgroundPictureAndTextLandWhereTheyBelong) {
    show();
    Screenshot shot = shotWhen(colourAt(1500, 700, kPanel));
    // Panel from screen x 800; background from canvas (78, 10), 1055 high, cut at the canvas edge;
    // the picture at its own size at panel (100, 35), in its true colours.
    const std::vector<Probe> probes = {
        {400, 500, kBlack},        {877, 500, kBlack},       {878, 500, kPanel},
        {1799, 500, kPanel},       {1800, 500, kBlack},      {1300, 9, kBlack},
        {1300, 10, kPanel},        {1300, 1064, kPanel},     {1300, 1065, kBlack},
        {956, 91, kQuadrant[0]},   {1068, 91, kQuadrant[1]}, {956, 203, kQuadrant[2]},
        {1068, 203, kQuadrant[3]}, {900, 35, kQuadrant[0]},  {1123, 258, kQuadrant[3]},
        {899, 100, kPanel},        {1124, 100, kPanel},      {1000, 34, kPanel},
        {1000, 259, kPanel}};
    expectColours(shot, probes);
    expectTwoTextLinesFrom900(shot);
}

TEST_F(OverlayX11Test, ClearLeavesThePanelTransparentAndShowBringsTheLastObjectsBack) {
    show();
    shotWhen(colourAt(1500, 700, kPanel));
    s_display->Clear();
    Screenshot cleared = shotWhen(colourAt(1500, 700, kBlack));
    expectColours(cleared, {{1500, 700, kBlack}, {956, 91, kBlack}, {1300, 10, kBlack}});
    EXPECT_EQ(cleared.brightIn(800, 0, 1800, 1080), 0);

    s_display->Show();
    Screenshot again = shotWhen(colourAt(1500, 700, kPanel));
    expectColours(again, {{956, 91, kQuadrant[0]}, {1068, 203, kQuadrant[3]}});
    expectTwoTextLinesFrom900(again);
}

// The frame is one pixel short on both axes: the right and bottom edges land inside the canvas.
TEST_F(OverlayX11Test, FlipFramesTheCanvasInRed) {
    std::unique_ptr<korvane::WindowContextDFB> window(korvane::WindowContextDFB::create(1920, 1080));
    korvane::GraphicContext* canvas = korvane::createGraphicContext();
    ASSERT_TRUE(canvas->initialize());
    canvas->setContentSize(200, 100);
    canvas->clear(0, 0, 0, 0);
    canvas->flip();
    canvas->blitTo(window.get(), 100, 100, 200, 100);
    Screenshot shot = shotWhen(colourAt(100, 150, kRed));
    const std::vector<Probe> probes = {{100, 100, kRed},   {298, 150, kRed},   {200, 198, kRed},
                                       {299, 150, kBlack}, {200, 199, kBlack}, {200, 150, kBlack},
                                       {99, 150, kBlack}};
    expectColours(shot, probes);
    canvas->finalize();
    korvane::destroyGraphicContext(canvas);
}

}  // namespace
