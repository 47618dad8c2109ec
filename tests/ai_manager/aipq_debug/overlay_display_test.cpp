// The display as the controller uses it, against the recording DirectFB stand-in.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "aipq_display.h"
#include "overlay_test_util.h"

using fakedfb::Call;
using fakedfb::state;
using korvane::aipq::AIPQDisplay;

namespace {

using Args = std::vector<long>;

class DisplayTest : public FakeDfbTest {
protected:
    void SetUp() override {
        FakeDfbTest::SetUp();
        unsetenv("FONTFILE");
        state().fontHeight = 34;
    }

    int windowSurface() const { return state().windows.at(0)->surface->id; }

    // The canvas is the first surface the root made after the window.
    int canvas() const {
        for (const fakedfb::Surface* s : state().surfaces) {
            if (!s->fromWindow && s->desc.width == 1000 && s->desc.height == 1080) {
                return s->id;
            }
        }
        return -1;
    }

    // The panel blit (StretchBlit destination and Flip region) of the last Show or Clear.
    void expectPanelAt(long x, long y, long w, long h) {
        std::vector<Call> calls = fakedfb::callsOn("surface", windowSurface());
        ASSERT_GE(calls.size(), 3u);
        const Call& blit = calls[calls.size() - 2];
        const Call& flip = calls.back();
        EXPECT_EQ(blit.method, "StretchBlit");
        EXPECT_EQ(blit.args, (Args{canvas(), 0, x, y, w, h}));
        EXPECT_EQ(flip.method, "Flip");
        EXPECT_EQ(flip.args, (Args{1, x, y, x + w, y + h, DSFLIP_BLIT}));
    }

    std::vector<unsigned char> m_picture = std::vector<unsigned char>(224 * 224 * 3, 0x40);
};

TEST_F(DisplayTest, CreateOpensWindowAndPanelCanvas) {
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    EXPECT_EQ(state().initCalls, 1);
    EXPECT_TRUE(state().initArgsNull);
    ASSERT_EQ(state().windows.size(), 1u);
    EXPECT_EQ(state().windows[0]->desc.width, 1920);
    EXPECT_EQ(state().windows[0]->desc.height, 1080);
    EXPECT_EQ(state().layers.at(0)->layerId, 1u);
    ASSERT_NE(canvas(), -1);
    EXPECT_EQ(static_cast<unsigned>(state().surfaces[canvas() - 1]->desc.caps), 0x1000u);
    // Nothing is drawn before the first Show.
    EXPECT_TRUE(fakedfb::callsTo("FillRectangle").empty());
    EXPECT_DOUBLE_EQ(display->scale(), 1.0);
}

TEST_F(DisplayTest, PanelFollowsTheLayerSize) {
    struct Case {
        int layerWidth, layerHeight;
        double scale;
        long x, w, h;
    };
    const Case cases[] = {
        {1920, 1080, 1.0, 800, 1000, 1080}, {1280, 720, 1.5, 533, 666, 720},
        {1024, 768, 1.0, 800, 1000, 1080},  {720, 1280, 1.0, 800, 1000, 1080},  // portrait 720p is not 720p
        {1280, 1080, 1.0, 800, 1000, 1080},  // one side matching is not enough
        {3840, 2160, 1.0, 800, 1000, 1080},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.layerWidth) + "x" + std::to_string(c.layerHeight));
        fakedfb::reset();
        state().layerWidth = c.layerWidth;
        state().layerHeight = c.layerHeight;
        std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
        ASSERT_TRUE(display);
        EXPECT_DOUBLE_EQ(display->scale(), c.scale);
        display->Show();
        expectPanelAt(c.x, 0, c.w, c.h);
        display->Clear();
        expectPanelAt(c.x, 0, c.w, c.h);
    }
}

TEST_F(DisplayTest, ShowDrawsBackgroundTextThenPictureAndBlitsThePanel) {
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    std::string text = "A\nB";
    display->setupTextObject(text, 5);
    display->setupImageObject(m_picture.data(), 224, 224);
    const int picture = state().surfaces.back()->id;
    state().calls.clear();

    display->Show();
    std::vector<std::string> ops;
    for (const Call& c : fakedfb::callsOn("surface", canvas())) {
        if (c.method == "Clear" || c.method == "FillRectangle" || c.method == "DrawString" ||
            c.method == "StretchBlit") {
            ops.push_back(c.method + (c.method == "DrawString" ? ":" + c.text : ""));
        }
    }
    EXPECT_EQ(ops, (std::vector<std::string>{"Clear", "FillRectangle", "DrawString:A", "DrawString:B",
                                             "StretchBlit"}));
    std::vector<Call> strings = fakedfb::callsTo("DrawString");
    ASSERT_EQ(strings.size(), 2u);
    EXPECT_EQ(strings[0].args, (Args{-1, 100, 300, 0}));
    EXPECT_EQ(strings[1].args, (Args{-1, 100, 300 + 34 + 5, 0}));
    std::vector<Call> blits = fakedfb::callsOn("surface", canvas());
    auto image =
        std::find_if(blits.begin(), blits.end(), [](const Call& c) { return c.method == "StretchBlit"; });
    ASSERT_NE(image, blits.end());
    EXPECT_EQ(image->args, (Args{picture, 0, 100, 35, 224, 224}));
    expectPanelAt(800, 0, 1000, 1080);
    // The canvas is cleared to transparent first.
    EXPECT_EQ(fakedfb::callsOn("surface", canvas())[0].args, (Args{0, 0, 0, 0}));

    std::vector<Call> fonts = fakedfb::callsTo("CreateFont");
    ASSERT_EQ(fonts.size(), 1u);
    EXPECT_EQ(fonts[0].text, "/opt/font/HBBTV02_Tiresias.ttf");
    EXPECT_TRUE(m_log.contains("[TRACE] aipq_display.cpp:"));
    EXPECT_TRUE(m_log.contains("void korvane::aipq::AIPQDisplay::Show()"));
}

TEST_F(DisplayTest, RepeatedCyclesKeepOneObjectPerKindAndOneFont) {
    setenv("FONTFILE", "/fonts/from-env.ttf", 1);
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    std::vector<std::vector<unsigned char>> frames(4, std::vector<unsigned char>(224 * 224 * 3));
    for (int cycle = 0; cycle < 4; ++cycle) {
        std::string text = "cycle " + std::to_string(cycle);
        state().calls.clear();
        display->setupTextObject(text, 5);
        display->setupImageObject(frames[cycle].data(), 224, 224);
        display->Show();
        std::vector<Call> strings = fakedfb::callsTo("DrawString");
        ASSERT_EQ(strings.size(), 1u);
        EXPECT_EQ(strings[0].text, text);
        std::vector<Call> blits = fakedfb::callsOn("surface", canvas());
        auto image =
            std::find_if(blits.begin(), blits.end(), [](const Call& c) { return c.method == "StretchBlit"; });
        ASSERT_NE(image, blits.end());
        EXPECT_EQ(state().surfaces[image->args[0] - 1]->desc.preallocated[0].data, frames[cycle].data());
    }
    ASSERT_EQ(state().fonts.size(), 1u);
    EXPECT_EQ(state().fonts[0]->path, "/fonts/from-env.ttf");
    // Canvas plus the one picture still shown.
    EXPECT_EQ(fakedfb::liveSurfaces(), 2);
    unsetenv("FONTFILE");
}

TEST_F(DisplayTest, ClearEmptiesThePanelAndShowBringsTheObjectsBack) {
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    std::string text = "kept";
    display->setupTextObject(text, 5);
    display->setupImageObject(m_picture.data(), 224, 224);
    display->Show();

    state().calls.clear();
    display->Clear();
    std::vector<Call> onCanvas = fakedfb::callsOn("surface", canvas());
    ASSERT_EQ(onCanvas.size(), 1u);
    EXPECT_EQ(onCanvas[0].method, "Clear");
    EXPECT_EQ(onCanvas[0].args, (Args{0, 0, 0, 0}));
    std::vector<Call> onWindow = fakedfb::callsOn("surface", windowSurface());
    ASSERT_EQ(onWindow.size(), 3u);
    // Copied without blending, so the panel area becomes transparent.
    EXPECT_EQ(onWindow[0].args, (Args{DSBLIT_NOFX}));
    expectPanelAt(800, 0, 1000, 1080);

    state().calls.clear();
    display->Show();
    ASSERT_EQ(fakedfb::callsTo("DrawString").size(), 1u);
    EXPECT_EQ(fakedfb::callsTo("DrawString")[0].text, "kept");
    EXPECT_EQ(fakedfb::callsTo("FillRectangle").size(), 1u);
}

TEST_F(DisplayTest, MissingFontStillShowsPanelAndPicture) {
    setenv("FONTFILE", "/no/such/font.ttf", 1);
    state().createFontResult = DFB_FILENOTFOUND;
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    std::string text = "details";
    for (int cycle = 0; cycle < 2; ++cycle) {
        display->setupTextObject(text, 5);
        display->setupImageObject(m_picture.data(), 224, 224);
        display->Show();
    }
    EXPECT_TRUE(m_log.contains("Error creating Font.  /no/such/font.ttf\n"));
    EXPECT_TRUE(fakedfb::callsTo("DrawString").empty());
    EXPECT_EQ(fakedfb::callsTo("FillRectangle").size(), 2u);
    std::vector<Call> blits = fakedfb::callsOn("surface", canvas());
    EXPECT_EQ(
        std::count_if(blits.begin(), blits.end(), [](const Call& c) { return c.method == "StretchBlit"; }),
        2);
    expectPanelAt(800, 0, 1000, 1080);
    unsetenv("FONTFILE");
}

TEST_F(DisplayTest, FailedDirectFBInitGivesNoDisplayAndNoWindow) {
    state().initResult = DFB_INIT;
    EXPECT_FALSE(AIPQDisplay::create());
    EXPECT_TRUE(m_log.contains("Failed to Init DFB.\n"));
    EXPECT_TRUE(state().windows.empty());
    EXPECT_TRUE(fakedfb::callsTo("GetDisplayLayer").empty());

    // The controller asks again on its next cycle.
    state().initResult = DFB_OK;
    EXPECT_TRUE(AIPQDisplay::create());
}

TEST_F(DisplayTest, DestroyingTheDisplayReturnsThePicture) {
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    display->setupImageObject(m_picture.data(), 224, 224);
    fakedfb::Surface* picture = state().surfaces.back();
    display->Show();
    display.reset();
    EXPECT_EQ(picture->releases, 1);
    EXPECT_TRUE(m_log.contains("korvane::aipq::AIPQDisplay::~AIPQDisplay()"));
}

// Show and Clear from two threads never interleave their drawing on the canvas.
TEST_F(DisplayTest, ShowAndClearAreSerialised) {
    std::shared_ptr<AIPQDisplay> display = AIPQDisplay::create();
    ASSERT_TRUE(display);
    std::string text = "t";
    display->setupTextObject(text, 5);
    display->setupImageObject(m_picture.data(), 224, 224);
    display->Show();
    host::setLogLevel(1000);  // keep the log sink out of the timing
    state().calls.clear();
    state().callDelayUs = 20;

    constexpr int kRounds = 100;
    std::atomic<int> ready{0};
    auto run = [&](void (AIPQDisplay::*operation)()) {
        ++ready;
        while (ready.load() < 2) {
        }
        for (int i = 0; i < kRounds; ++i) {
            ((*display).*operation)();
        }
    };
    std::thread shower(run, &AIPQDisplay::Show);
    std::thread clearer(run, &AIPQDisplay::Clear);
    shower.join();
    clearer.join();
    state().callDelayUs = 0;

    // Every operation is canvas Clear, [drawing], window SetBlittingFlags, StretchBlit, Flip.
    const int canvasId = canvas();
    const int windowId = windowSurface();
    int shows = 0;
    int clears = 0;
    bool inside = false;
    bool drew = false;
    for (const Call& c : state().calls) {
        if (c.object != "surface") {
            continue;
        }
        if (c.id == canvasId && c.method == "Clear") {
            ASSERT_FALSE(inside) << "an operation started inside another";
            inside = true;
            drew = false;
        } else if (c.id == canvasId) {
            ASSERT_TRUE(inside);
            drew = true;
        } else if (c.id == windowId && c.method == "Flip") {
            ASSERT_TRUE(inside);
            inside = false;
            (drew ? shows : clears)++;
        }
    }
    EXPECT_EQ(shows, kRounds);
    EXPECT_EQ(clears, kRounds);
}

// The root interface is made once per process, so a DirectFB that cannot start needs a fresh one.
TEST_F(DisplayTest, RefusedDirectFBCreateGivesNoDisplayAndTheCallerGoesOn) {
    EXPECT_IN_FRESH_PROCESS(
        [] {
            state().createResult = DFB_INIT;
            for (int attempt = 0; attempt < 2; ++attempt) {
                if (AIPQDisplay::create() || !state().windows.empty()) {
                    return 1;
                }
            }
            return 0;
        },
        "Failed to create DFB handle.(.|\n)*ERROR creating window surface(.|\n)*init: InitDFBSurface fail "
        "(.|\n)*Failed to create display.(.|\n)*Failed to create DFB handle.");
}

// Without its display DirectFB crashes while it gives up; the probe takes that crash instead of
// the daemon, which never calls DirectFBCreate itself.
TEST_F(DisplayTest, DirectFBCrashingWithoutDisplayIsSurvived) {
    EXPECT_IN_FRESH_PROCESS(
        [] {
            state().crashInCreate = true;
            if (AIPQDisplay::create() || state().createCalls != 0 || !state().windows.empty()) {
                return 1;
            }
            return 0;
        },
        "probe died of signal 11(.|\n)*Failed to create display.");
}

TEST_F(DisplayTest, FatalWindowErrorEndsTheProcess) {
    EXPECT_EXIT(
        {
            host::setLogSink(nullptr);
            state().getLayerResult = DFB_IDNOTFOUND;
            AIPQDisplay::create();
            _exit(0);
        },
        ::testing::ExitedWithCode(fakedfb::kFatalExitCode),
        "DirectFBErrorFatal [0-9]+ \\(ok is 0\\)(.|\n)*"
        "\\[m_directfb->GetDisplayLayer\\(m_directfb, layerID, &m_layer\\)\\]");
}

}  // namespace
