// Drawing contexts against the recording DirectFB stand-in: the exact calls and values that reach
// DirectFB, which surfaces live and die, and the fatal paths.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "dfb_utils.h"
#include "graphic_context_dfb.h"
#include "image_context_dfb.h"
#include "overlay_test_util.h"
#include "window_context_dfb.h"

using fakedfb::Call;
using fakedfb::state;
using korvane::GraphicContextDFB;
using korvane::ImageContextDFB;
using korvane::WindowContextDFB;

namespace {

using Args = std::vector<long>;
using Names = std::vector<std::string>;

struct GcDeleter {
    void operator()(GraphicContextDFB* gc) const { korvane::destroyGraphicContext(gc); }
};
using GcPtr = std::unique_ptr<GraphicContextDFB, GcDeleter>;

GcPtr makeCanvas(int width, int height) {
    GcPtr gc(GraphicContextDFB::create());
    EXPECT_TRUE(gc->initialize());
    gc->setContentSize(width, height);
    return gc;
}

int canvasId() {
    // The canvas is the last surface made with CreateSurface.
    for (auto it = state().surfaces.rbegin(); it != state().surfaces.rend(); ++it) {
        if (!(*it)->fromWindow) {
            return (*it)->id;
        }
    }
    return -1;
}

class WindowContextTest : public FakeDfbTest {};

TEST_F(WindowContextTest, OpensTransparentUpperWindowOnLayerOne) {
    state().layerWidth = 1280;
    state().layerHeight = 720;
    std::unique_ptr<WindowContextDFB> window(WindowContextDFB::create(1920, 1080));

    EXPECT_EQ(methodsOn("dfb", 0), (Names{"SetCooperativeLevel", "GetDisplayLayer"}));
    EXPECT_EQ(fakedfb::callsTo("SetCooperativeLevel")[0].args, (Args{DFSCL_NORMAL}));
    EXPECT_EQ(fakedfb::callsTo("GetDisplayLayer")[0].args, (Args{1}));
    EXPECT_EQ(methodsOn("layer", 1), (Names{"SetCooperativeLevel", "SetBackgroundMode", "SetBackgroundColor",
                                            "GetConfiguration", "CreateWindow"}));
    EXPECT_EQ(fakedfb::callsOn("layer", 1)[0].args, (Args{2}));  // DLSCL_ADMINISTRATIVE
    // A transparent background under the window, so that a cleared panel really disappears.
    EXPECT_EQ(fakedfb::callsOn("layer", 1)[1].args, (Args{DLBM_COLOR}));
    EXPECT_EQ(fakedfb::callsOn("layer", 1)[2].args, (Args{0, 0, 0, 0}));

    ASSERT_EQ(state().windows.size(), 1u);
    const DFBWindowDescription& desc = state().windows[0]->desc;
    EXPECT_EQ(static_cast<unsigned>(desc.flags), 0x237u);
    EXPECT_EQ(static_cast<unsigned>(desc.caps), 3u);
    EXPECT_EQ(desc.stacking, DWSC_UPPER);
    EXPECT_EQ(static_cast<int>(desc.stacking), 1);
    EXPECT_EQ(desc.width, 1920);
    EXPECT_EQ(desc.height, 1080);
    EXPECT_EQ(desc.posx, 0);
    EXPECT_EQ(desc.posy, 0);
    // Filled in but not flagged.
    EXPECT_EQ(desc.pixelformat, DSPF_ARGB);
    EXPECT_EQ(static_cast<unsigned>(desc.surface_caps), 0x15u);
    EXPECT_EQ(desc.options, DWOP_NONE);
    EXPECT_EQ(desc.parent_id, 0u);

    EXPECT_EQ(methodsOn("window", 1), (Names{"SetOpacity", "GetSurface"}));
    EXPECT_EQ(fakedfb::callsOn("window", 1)[0].args, (Args{0xFF}));

    // Both buffers start transparent.
    fakedfb::Surface* surface = state().windows[0]->surface;
    ASSERT_NE(surface, nullptr);
    EXPECT_EQ(window->getSurface(), &surface->iface);
    std::vector<Call> calls = fakedfb::callsOn("surface", surface->id);
    ASSERT_EQ(calls.size(), 4u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(calls[2 * i].method, "Clear");
        EXPECT_EQ(calls[2 * i].args, (Args{0, 0, 0, 0}));
        EXPECT_EQ(calls[2 * i + 1].method, "Flip");
        EXPECT_EQ(calls[2 * i + 1].args, (Args{0, 0}));  // whole surface, no flags
    }

    int width = 0;
    int height = 0;
    window->getLayerSize(width, height);
    EXPECT_EQ(width, 1280);
    EXPECT_EQ(height, 720);
    EXPECT_TRUE(m_log.contains("[aipq] window_context_dfb.cpp:"));
    EXPECT_TRUE(m_log.contains("layer size form [ 1280 x 720 ] \n"));
    EXPECT_TRUE(m_log.contains("[TRACE] window_context_dfb.cpp:"));
    EXPECT_TRUE(m_log.contains("korvane::WindowContextDFB::WindowContextDFB(int, int)"));

    window->clear(1, 2, 3, 4);
    EXPECT_EQ(fakedfb::callsOn("surface", surface->id).back().args, (Args{1, 2, 3, 4}));
}

// Each step of window creation that DirectFB refuses is fatal, with its own text, and leaves no
// half-made window behind when the fatal handler comes back.
TEST_F(WindowContextTest, EachRefusedStepIsFatalWithItsText) {
    struct Case {
        DFBResult fakedfb::State::*knob;
        const char* text;
    };
    const Case cases[] = {
        {&fakedfb::State::getLayerResult, "m_directfb->GetDisplayLayer(m_directfb, layerID, &m_layer)"},
        {&fakedfb::State::createWindowResult, "m_layer->CreateWindow(m_layer, &desc, &win)"},
        {&fakedfb::State::setOpacityResult, "win->SetOpacity(win, 0xFF)"},
        {&fakedfb::State::windowSurfaceResult, "win->GetSurface(win, &surface)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        fakedfb::reset();
        m_log.clear();
        state().fatalReturns = true;
        state().*c.knob = DFB_UNSUPPORTED;

        std::unique_ptr<WindowContextDFB> window(WindowContextDFB::create(1920, 1080));
        EXPECT_EQ(state().fatalTexts, (std::vector<std::string>{c.text}));
        EXPECT_TRUE(
            m_log.contains("DirectFBErrorFatal " + std::to_string(DFB_UNSUPPORTED) + " (ok is 0)\n\n"));
        EXPECT_EQ(window->getSurface(), nullptr);
    }
}

TEST_F(WindowContextTest, FatalErrorEndsTheProcessAfterTheLogLine) {
    EXPECT_EXIT(
        {
            host::setLogSink(nullptr);
            state().createWindowResult = DFB_NOVIDEOMEMORY;
            WindowContextDFB::create(1920, 1080);
            _exit(0);
        },
        ::testing::ExitedWithCode(fakedfb::kFatalExitCode),
        "DirectFBErrorFatal [0-9]+ \\(ok is 0\\)(.|\n)*\\[m_layer->CreateWindow\\(m_layer, &desc, "
        "&win\\)\\]");
}

class GraphicContextTest : public FakeDfbTest {};

TEST_F(GraphicContextTest, CanvasIsPremultipliedArgbMadeOncePerSize) {
    GcPtr gc(GraphicContextDFB::create());
    ASSERT_TRUE(gc->initialize());
    EXPECT_EQ(fakedfb::callsTo("SetCooperativeLevel").at(0).args, (Args{DFSCL_NORMAL}));

    gc->clear(0, 0, 0, 0);
    EXPECT_TRUE(m_log.contains("No canvas to clear\n"));

    gc->setContentSize(1000, 1080);
    gc->setContentSize(1000, 1080);
    std::vector<Call> creates = fakedfb::callsTo("CreateSurface");
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(creates[0].args, (Args{15, 0x1000, 1000, 1080, DSPF_ARGB}));
    const int first = canvasId();

    gc->setContentSize(500, 400);
    ASSERT_EQ(fakedfb::callsTo("CreateSurface").size(), 2u);
    EXPECT_EQ(fakedfb::callsTo("CreateSurface")[1].args, (Args{15, 0x1000, 500, 400, DSPF_ARGB}));
    // The old canvas went before the new one was made.
    EXPECT_EQ(state().surfaces[first - 1]->releases, 1);
    EXPECT_EQ(fakedfb::liveSurfaces(), 1);

    gc->clear(9, 8, 7, 6);
    EXPECT_EQ(fakedfb::callsOn("surface", canvasId()).back().args, (Args{9, 8, 7, 6}));
    gc->finalize();
}

TEST_F(GraphicContextTest, RefusedCanvasIsLoggedAndDrawingIsRefused) {
    state().failCreateSurfaceCall = 1;
    GcPtr gc = makeCanvas(1000, 1080);
    EXPECT_TRUE(m_log.contains("Error creating canvas\n"));
    EXPECT_TRUE(state().fatalTexts.empty());

    ASSERT_TRUE(gc->loadFont("/fonts/a.ttf", 30));
    EXPECT_FALSE(gc->fillRect(0, 0, 10, 10, 1, 2, 3, 4));
    EXPECT_FALSE(gc->drawRect(0, 0, 10, 10, 1, 2, 3, 4));
    EXPECT_TRUE(m_log.contains("No content to render.\n"));
    EXPECT_FALSE(gc->drawText("A", 0, 0, 1, 2, 3, 4, 0, 0));
    gc->flip();
    EXPECT_TRUE(fakedfb::callsTo("DrawString").empty());
    EXPECT_TRUE(fakedfb::callsTo("FillRectangle").empty());

    // The same size asked again tries anew, since there is still no canvas.
    gc->setContentSize(1000, 1080);
    EXPECT_EQ(fakedfb::liveSurfaces(), 1);
    EXPECT_TRUE(gc->fillRect(0, 0, 10, 10, 1, 2, 3, 4));
}

TEST_F(GraphicContextTest, FirstFontStaysForTheLifeOfTheContext) {
    GcPtr gc = makeCanvas(100, 100);
    ASSERT_TRUE(gc->loadFont("/fonts/first.ttf", 30));
    ASSERT_TRUE(gc->loadFont("/fonts/second.ttf", 12));
    ASSERT_TRUE(gc->loadFont("/fonts/first.ttf", 44));

    std::vector<Call> fonts = fakedfb::callsTo("CreateFont");
    ASSERT_EQ(fonts.size(), 1u);
    EXPECT_EQ(fonts[0].text, "/fonts/first.ttf");
    // flags DFDESC_ATTRIBUTES | DFDESC_WIDTH, no attributes, the size in the width field only.
    EXPECT_EQ(fonts[0].args, (Args{5, 0, 30, 0}));
    EXPECT_TRUE(m_log.contains("set font.\n"));

    gc->finalize();
    EXPECT_EQ(fakedfb::liveFonts(), 0);
    EXPECT_EQ(fakedfb::liveSurfaces(), 0);
}

TEST_F(GraphicContextTest, MissingFontFileIsLoggedAndTextIsSkipped) {
    state().createFontResult = DFB_FILENOTFOUND;
    GcPtr gc = makeCanvas(100, 100);
    EXPECT_FALSE(gc->loadFont("/no/such/font.ttf", 30));
    EXPECT_TRUE(m_log.contains("Error creating Font.  /no/such/font.ttf\n"));
    EXPECT_FALSE(gc->drawText("A\nB", 10, 20, 255, 255, 255, 255, 0, 5));
    EXPECT_TRUE(fakedfb::callsTo("DrawString").empty());

    // A later load of a font that exists is not blocked by the failure.
    state().createFontResult = DFB_OK;
    EXPECT_TRUE(gc->loadFont("/fonts/ok.ttf", 30));
    EXPECT_TRUE(gc->drawText("A", 10, 20, 255, 255, 255, 255, 0, 5));
    EXPECT_EQ(fakedfb::callsTo("DrawString").size(), 1u);
    gc->finalize();
}

TEST_F(GraphicContextTest, TextIsCutAtEveryNewlineKeepingEmptyLines) {
    state().fontHeight = 34;
    GcPtr gc = makeCanvas(1000, 1080);
    ASSERT_TRUE(gc->loadFont("/fonts/a.ttf", 30));

    ASSERT_TRUE(gc->drawText("A\n\nB", 100, 300, 255, 254, 253, 252, DSTF_TOPCENTER, 5));
    std::vector<Call> canvas = fakedfb::callsOn("surface", canvasId());
    Names methods;
    for (const Call& c : canvas) {
        methods.push_back(c.method);
    }
    ASSERT_EQ(methods, (Names{"SetColor", "SetFont", "DrawString", "DrawString", "DrawString"}));
    EXPECT_EQ(canvas[0].args, (Args{255, 254, 253, 252}));
    EXPECT_EQ(canvas[1].args, (Args{state().fonts[0]->id}));
    const std::vector<std::string> texts = {"A", "", "B"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(canvas[2 + i].text, texts[i]);
        EXPECT_EQ(canvas[2 + i].args, (Args{-1, 100, 300 + i * (34 + 5), DSTF_TOPCENTER}));
    }

    // A trailing newline is one more (empty) line; a single line keeps its y.
    state().calls.clear();
    gc->drawText("L1\n", 7, 50, 1, 1, 1, 1, 0, 0);
    std::vector<Call> strings = fakedfb::callsTo("DrawString");
    ASSERT_EQ(strings.size(), 2u);
    EXPECT_EQ(strings[1].text, "");
    EXPECT_EQ(strings[1].args, (Args{-1, 7, 84, 0}));
    state().calls.clear();
    gc->drawText("only", 7, 50, 1, 1, 1, 1, 0, 9);
    ASSERT_EQ(fakedfb::callsTo("DrawString").size(), 1u);
    EXPECT_EQ(fakedfb::callsTo("DrawString")[0].args, (Args{-1, 7, 50, 0}));
    gc->finalize();
}

TEST_F(GraphicContextTest, RectanglesSetTheColourFirst) {
    GcPtr gc = makeCanvas(100, 100);
    state().calls.clear();
    EXPECT_TRUE(gc->fillRect(1, 2, 3, 4, 10, 20, 30, 40));
    EXPECT_TRUE(gc->drawRect(5, 6, 7, 8, 50, 60, 70, 80));
    std::vector<Call> calls = fakedfb::callsOn("surface", canvasId());
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].method, "SetColor");
    EXPECT_EQ(calls[0].args, (Args{10, 20, 30, 40}));
    EXPECT_EQ(calls[1].method, "FillRectangle");
    EXPECT_EQ(calls[1].args, (Args{1, 2, 3, 4}));
    EXPECT_EQ(calls[2].args, (Args{50, 60, 70, 80}));
    EXPECT_EQ(calls[3].method, "DrawRectangle");
    EXPECT_EQ(calls[3].args, (Args{5, 6, 7, 8}));
    gc->finalize();
}

TEST_F(GraphicContextTest, FlipFramesTheCanvasOnePixelInside) {
    GcPtr gc = makeCanvas(100, 50);
    state().calls.clear();
    gc->flip();
    std::vector<Call> calls = fakedfb::callsOn("surface", canvasId());
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].args, (Args{255, 0, 0, 255}));
    EXPECT_EQ(calls[1].method, "DrawRectangle");
    EXPECT_EQ(calls[1].args, (Args{0, 0, 99, 49}));
    EXPECT_EQ(calls[2].method, "Flip");
    EXPECT_EQ(calls[2].args, (Args{0, 0}));
    gc->finalize();
}

TEST_F(GraphicContextTest, ImagesAreBlendedAndStretchedToTheRectangle) {
    GcPtr gc = makeCanvas(100, 100);
    const int canvas = canvasId();
    std::vector<unsigned char> pixels(10 * 10 * 3);
    std::unique_ptr<korvane::ImageContext> image(korvane::createImageContext(pixels.data(), 10, 10, ""));
    const int imageSurface = state().surfaces.back()->id;
    state().calls.clear();

    EXPECT_FALSE(gc->drawImage(nullptr, 0, 0, 40, 20));
    ASSERT_TRUE(gc->drawImage(image.get(), 0, 0, 40, 20));
    std::vector<Call> calls = fakedfb::callsOn("surface", canvas);
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].method, "SetBlittingFlags");
    EXPECT_EQ(calls[0].args, (Args{DSBLIT_BLEND_ALPHACHANNEL}));
    EXPECT_EQ(calls[1].args, (Args{DSBF_ONE}));
    EXPECT_EQ(calls[2].args, (Args{DSBF_INVSRCALPHA}));
    EXPECT_EQ(calls[3].method, "StretchBlit");
    // Whole source (no source rectangle) into 40 x 20.
    EXPECT_EQ(calls[3].args, (Args{imageSurface, 0, 0, 0, 40, 20}));

    GcPtr bare(GraphicContextDFB::create());
    EXPECT_FALSE(bare->drawImage(image.get(), 0, 0, 40, 20));
    gc->finalize();
}

TEST_F(GraphicContextTest, BlitCopiesCanvasAndFlipsOnePixelPastTheRectangle) {
    std::unique_ptr<WindowContextDFB> window(WindowContextDFB::create(1920, 1080));
    const int windowSurface = state().windows[0]->surface->id;
    GcPtr gc = makeCanvas(1000, 1080);
    const int canvas = canvasId();
    state().calls.clear();

    gc->blitTo(window.get(), 533, 0, 666, 720);
    std::vector<Call> calls = fakedfb::callsOn("surface", windowSurface);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].method, "SetBlittingFlags");
    EXPECT_EQ(calls[0].args, (Args{DSBLIT_NOFX}));
    EXPECT_EQ(calls[1].method, "StretchBlit");
    EXPECT_EQ(calls[1].args, (Args{canvas, 0, 533, 0, 666, 720}));
    EXPECT_EQ(calls[2].method, "Flip");
    EXPECT_EQ(calls[2].args, (Args{1, 533, 0, 1199, 720, DSFLIP_BLIT}));
    EXPECT_TRUE(m_log.contains("Flip the surface.\n"));

    state().calls.clear();
    gc->blitTo(nullptr, 0, 0, 1, 1);
    EXPECT_TRUE(m_log.contains("Invalid WindowContext\n"));
    GcPtr bare(GraphicContextDFB::create());
    bare->blitTo(window.get(), 0, 0, 1, 1);
    EXPECT_TRUE(fakedfb::callsOn("surface", windowSurface).empty());
    gc->finalize();
}

class ImageContextTest : public FakeDfbTest {};

TEST_F(ImageContextTest, BufferImageIsRgb24OnTheCallersPixels) {
    std::vector<unsigned char> pixels(224 * 224 * 3);
    {
        std::unique_ptr<korvane::ImageContext> image(
            korvane::createImageContext(pixels.data(), 224, 224, ""));
        ASSERT_EQ(state().surfaces.size(), 1u);
        const DFBSurfaceDescription& desc = state().surfaces[0]->desc;
        EXPECT_EQ(static_cast<unsigned>(desc.flags), 30u);
        EXPECT_EQ(desc.pixelformat, DSPF_RGB24);
        EXPECT_EQ(desc.width, 224);
        EXPECT_EQ(desc.height, 224);
        EXPECT_EQ(desc.preallocated[0].data, pixels.data());
        EXPECT_EQ(desc.preallocated[0].pitch, 224 * 3);
        EXPECT_EQ(desc.preallocated[1].data, nullptr);
        EXPECT_EQ(desc.preallocated[1].pitch, 0);
        EXPECT_EQ(image->width(), 224);
        EXPECT_EQ(image->height(), 224);
        EXPECT_EQ(fakedfb::liveSurfaces(), 1);
    }
    EXPECT_EQ(fakedfb::liveSurfaces(), 0);

    std::unique_ptr<korvane::ImageContext> empty(korvane::createImageContext(nullptr, 224, 224, ""));
    EXPECT_EQ(empty->width(), -1);
    EXPECT_EQ(empty->height(), -1);
    EXPECT_EQ(state().surfaces.size(), 1u);

    // A non-square picture: the pitch follows the width, not the height.
    std::vector<unsigned char> wide(320 * 10 * 3);
    std::unique_ptr<korvane::ImageContext> strip(korvane::createImageContext(wide.data(), 320, 10, ""));
    EXPECT_EQ(state().surfaces.back()->desc.preallocated[0].pitch, 960);
    EXPECT_EQ(strip->width(), 320);
    EXPECT_EQ(strip->height(), 10);
}

TEST_F(ImageContextTest, FileImageKeepsNaturalSizeUnlessBothSidesGiven) {
    state().imageWidth = 64;
    state().imageHeight = 48;
    std::unique_ptr<korvane::ImageContext> natural(korvane::createImageContext(nullptr, 0, 0, "/res/bg.png"));
    EXPECT_EQ(natural->width(), 64);
    EXPECT_EQ(natural->height(), 48);

    EXPECT_EQ(methodsOn("dfb", 0), (Names{"CreateSurface", "CreateImageProvider", "CreateSurface"}));
    std::vector<Call> creates = fakedfb::callsTo("CreateSurface");
    EXPECT_EQ(creates[0].args[0], DSDESC_CAPS);
    EXPECT_EQ(creates[0].args[1], 0x11);  // the primary surface, only for its size
    EXPECT_EQ(creates[1].args[2], 64);
    EXPECT_EQ(creates[1].args[3], 48);
    EXPECT_EQ(fakedfb::callsTo("CreateImageProvider")[0].text, "/res/bg.png");
    EXPECT_EQ(methodsOn("provider", 1), (Names{"GetSurfaceDescription", "RenderTo", "Release"}));
    EXPECT_EQ(fakedfb::callsOn("provider", 1)[1].args, (Args{state().surfaces[1]->id, 0}));
    EXPECT_TRUE(m_log.contains("Create Super inteface  for ...  /res/bg.png\n"));
    EXPECT_TRUE(m_log.contains("width:1920,height:1080\n"));
    // The stand-in describes DSPF_RGB32, whose index is 3.
    EXPECT_TRUE(m_log.contains("Desc: width: 64, height: 48, pixformat idx: 3, caps: 0x0 \n"));
    // Only the decoded image stays.
    EXPECT_EQ(fakedfb::liveSurfaces(), 1);
    EXPECT_EQ(fakedfb::liveProviders(), 0);

    std::unique_ptr<korvane::ImageContext> scaled(
        korvane::createImageContext(nullptr, 300, 200, "/res/bg.png"));
    EXPECT_EQ(scaled->width(), 300);
    EXPECT_EQ(scaled->height(), 200);
    std::unique_ptr<korvane::ImageContext> half(korvane::createImageContext(nullptr, 300, 0, "/res/bg.png"));
    EXPECT_EQ(half->width(), 64);
    EXPECT_EQ(half->height(), 48);
    // The buffer is ignored when a path is given.
    unsigned char pixel[3] = {};
    std::unique_ptr<korvane::ImageContext> withBuffer(
        korvane::createImageContext(pixel, 0, 0, "/res/bg.png"));
    EXPECT_EQ(withBuffer->width(), 64);
    for (const fakedfb::Surface* s : state().surfaces) {
        EXPECT_EQ(s->desc.flags & DSDESC_PREALLOCATED, 0);
    }
}

TEST_F(ImageContextTest, EachRefusedStepIsFatalWithItsText) {
    struct Case {
        const char* name;
        void (*inject)();
        bool fromFile;
        const char* text;
    };
    const Case cases[] = {
        {"buffer surface", [] { state().failCreateSurfaceCall = 1; }, false,
         "m_DFB->CreateSurface(m_DFB, &desc, &surface)"},
        {"primary surface", [] { state().failCreateSurfaceCall = 1; }, true,
         "m_DFB->CreateSurface(m_DFB, &desc, &dfb_surface)"},
        {"provider", [] { state().createProviderResult = DFB_FILENOTFOUND; }, true,
         "m_DFB->CreateImageProvider(m_DFB, path.c_str(), &provider)"},
        {"description", [] { state().surfaceDescResult = DFB_FAILURE; }, true,
         "provider->GetSurfaceDescription(provider, &desc)"},
        {"image surface", [] { state().failCreateSurfaceCall = 2; }, true,
         "m_DFB->CreateSurface(m_DFB, &desc, &logo)"},
        {"render", [] { state().renderToResult = DFB_UNSUPPORTED; }, true,
         "provider->RenderTo(provider, logo, nullptr)"},
    };
    std::vector<unsigned char> pixels(4 * 4 * 3);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fakedfb::reset();
        state().fatalReturns = true;
        c.inject();
        {
            std::unique_ptr<korvane::ImageContext> image(
                korvane::createImageContext(pixels.data(), 4, 4, c.fromFile ? "/res/x.png" : ""));
            EXPECT_EQ(state().fatalTexts, (std::vector<std::string>{c.text}));
            EXPECT_EQ(static_cast<ImageContextDFB*>(image.get())->getSurface(), nullptr);
        }
        EXPECT_EQ(fakedfb::liveSurfaces(), 0);
        EXPECT_EQ(fakedfb::liveProviders(), 0);
    }
}

class SurfaceUtilTest : public FakeDfbTest {};

TEST_F(SurfaceUtilTest, CreatesArgbSurfacesOptionallyOnPreallocatedBuffers) {
    IDirectFBSurface* plain = korvane::createDFBSurface(64, 32, nullptr, nullptr, DSCAPS_DOUBLE);
    ASSERT_NE(plain, nullptr);
    const DFBSurfaceDescription& desc = fakedfb::surfaceOf(plain)->desc;
    EXPECT_EQ(static_cast<unsigned>(desc.flags), 15u);
    EXPECT_EQ(desc.caps, DSCAPS_DOUBLE);
    EXPECT_EQ(desc.width, 64);
    EXPECT_EQ(desc.height, 32);
    EXPECT_EQ(desc.pixelformat, DSPF_ARGB);
    EXPECT_TRUE(m_log.contains("Create DFB Surface  ...\n"));

    std::vector<uint32_t> front(16), back(16);
    void* data[2] = {front.data(), back.data()};
    int pitch[2] = {16, 32};
    IDirectFBSurface* mapped = korvane::createDFBSurface(4, 4, data, pitch, DSCAPS_NONE);
    const DFBSurfaceDescription& md = fakedfb::surfaceOf(mapped)->desc;
    EXPECT_EQ(static_cast<unsigned>(md.flags), 31u);
    EXPECT_EQ(md.preallocated[0].data, front.data());
    EXPECT_EQ(md.preallocated[0].pitch, 16);
    EXPECT_EQ(md.preallocated[1].data, back.data());
    EXPECT_EQ(md.preallocated[1].pitch, 32);

    state().fatalReturns = true;
    state().failCreateSurfaceCall = state().createSurfaceCalls + 1;
    EXPECT_EQ(korvane::createDFBSurface(4, 4, nullptr, nullptr, DSCAPS_NONE), nullptr);
    EXPECT_EQ(state().fatalTexts, (std::vector<std::string>{"dfb->CreateSurface(dfb, &desc, &surface)"}));
}

}  // namespace
