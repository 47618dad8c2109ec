// The render stage against a recording graphic context: what is drawn, where, in which colour and
// in which order, and who frees what.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "graphic_context.h"
#include "image_context.h"
#include "overlay_test_util.h"
#include "stage_aipq.h"

using korvane::RenderObject;
using korvane::StageAIPQ;

namespace {

struct Op {
    Op(std::string kind, std::vector<int> values = {}, std::string str = {})
        : what(std::move(kind)), args(std::move(values)), text(std::move(str)) {}

    std::string what;  // "clear", "fill", "rect", "font", "text", "image"
    std::vector<int> args;
    std::string text;
    korvane::ImageContext* image = nullptr;
};

class RecordingContext : public korvane::GraphicContext {
public:
    ~RecordingContext() = default;

    bool initialize() override { return true; }
    void finalize() override {}
    void setContentSize(int, int) override {}
    void clear(unsigned char, unsigned char, unsigned char, unsigned char) override {
        ops.push_back({"clear"});
    }
    bool drawImage(korvane::ImageContext* image, int x, int y, int w, int h) override {
        Op op{"image", {x, y, w, h}};
        op.image = image;
        ops.push_back(op);
        return true;
    }
    bool drawRect(int x, int y, int w, int h, unsigned char r, unsigned char g, unsigned char b,
                  unsigned char a) override {
        ops.push_back({"rect", {x, y, w, h, r, g, b, a}});
        return true;
    }
    bool fillRect(int x, int y, int w, int h, unsigned char r, unsigned char g, unsigned char b,
                  unsigned char a) override {
        ops.push_back({"fill", {x, y, w, h, r, g, b, a}});
        return true;
    }
    bool loadFont(std::string path, int size) override {
        ops.push_back({"font", {size}, path});
        return true;
    }
    bool drawText(std::string text, int x, int y, unsigned char r, unsigned char g, unsigned char b,
                  unsigned char a, int flags, int lineSpacing) override {
        ops.push_back({"text", {x, y, r, g, b, a, flags, lineSpacing}, text});
        return true;
    }
    void blitTo(korvane::WindowContextDFB*, int, int, int, int) override {}
    void flip() override {}

    std::vector<std::string> kinds() const {
        std::vector<std::string> out;
        for (const Op& op : ops) {
            out.push_back(op.what);
        }
        return out;
    }

    std::vector<Op> ops;
};

using Kinds = std::vector<std::string>;

class StageTest : public FakeDfbTest {
protected:
    void SetUp() override {
        FakeDfbTest::SetUp();
        unsetenv("FONTFILE");
        m_stage.setGraphicContext(&m_gc);
        m_stage.init();
    }
    void TearDown() override { unsetenv("FONTFILE"); }

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (RenderObject* obj : m_stage.renderObjects()) {
            out.push_back(obj->getName());
        }
        return out;
    }

    RecordingContext m_gc;
    StageAIPQ m_stage;
    std::vector<unsigned char> m_pixels = std::vector<unsigned char>(224 * 224 * 3);
};

TEST_F(StageTest, BackgroundIsHalfTransparentGreyCutAtTheCanvasEdge) {
    m_stage.doRender();
    ASSERT_EQ(m_gc.kinds(), (Kinds{"fill"}));
    EXPECT_EQ(m_gc.ops[0].args, (std::vector<int>{78, 10, 1000, 1055, 0x80, 0x80, 0x80, 0x96}));
    EXPECT_TRUE(m_log.contains("Render Rectangle.\n"));

    // Channels come from 0xAARRGGBB in that order.
    auto* rect = static_cast<korvane::RenderObjectRectangle*>(m_stage.renderObjects()[0]);
    rect->color = 0xA1B2C3D4;
    m_gc.ops.clear();
    m_stage.doRender();
    EXPECT_EQ(m_gc.ops[0].args, (std::vector<int>{78, 10, 1000, 1055, 0xB2, 0xC3, 0xD4, 0xA1}));
}

TEST_F(StageTest, TextIsWhiteThirtyUnitsAtOneHundredThreeHundred) {
    std::string text = "line1\nline2";
    m_stage.setupTextObject(text, 5);
    m_stage.doRender();
    ASSERT_EQ(m_gc.kinds(), (Kinds{"fill", "font", "text"}));
    EXPECT_EQ(m_gc.ops[1].text, "/opt/font/HBBTV02_Tiresias.ttf");
    EXPECT_EQ(m_gc.ops[1].args, (std::vector<int>{30}));
    EXPECT_EQ(m_gc.ops[2].text, "line1\nline2");
    EXPECT_EQ(m_gc.ops[2].args, (std::vector<int>{100, 300, 255, 255, 255, 255, 0, 5}));

    // The text is a copy: the caller's string may change afterwards.
    text = "changed";
    setenv("FONTFILE", "/usr/share/fonts/test.ttf", 1);
    std::string second = "next";
    m_stage.setupTextObject(second, 7);
    auto* obj = static_cast<korvane::RenderObjectText*>(m_stage.renderObjects().back());
    EXPECT_EQ(obj->fontPath, "/usr/share/fonts/test.ttf");
    EXPECT_EQ(obj->lineSpacing, 7);
    obj->color = 0x11223344;
    m_gc.ops.clear();
    m_stage.doRender();
    ASSERT_EQ(m_gc.kinds(), (Kinds{"fill", "font", "text"}));
    EXPECT_EQ(m_gc.ops[2].text, "next");
    EXPECT_EQ(m_gc.ops[2].args, (std::vector<int>{100, 300, 0x22, 0x33, 0x44, 0x11, 0, 7}));
}

TEST_F(StageTest, PictureIsDrawnAtItsOwnSizeAtOneHundredThirtyFive) {
    std::vector<unsigned char> wide(320 * 180 * 3);
    m_stage.setupImageObject(wide.data(), 320, 180);
    m_stage.doRender();
    ASSERT_EQ(m_gc.kinds(), (Kinds{"fill", "image"}));
    EXPECT_EQ(m_gc.ops[1].args, (std::vector<int>{100, 35, 320, 180}));
    ASSERT_NE(m_gc.ops[1].image, nullptr);
    // The image sits on the caller's pixels.
    EXPECT_EQ(fakedfb::state().surfaces.back()->desc.preallocated[0].data, wide.data());
    EXPECT_TRUE(m_log.contains("Draw Image : 100 ,  35 , 320 ,180 \n"));
}

TEST_F(StageTest, SetupReplacesItsKindAndAppendsInCallOrder) {
    std::string text = "t";
    for (int cycle = 0; cycle < 3; ++cycle) {
        m_stage.setupTextObject(text, 5);
        m_stage.setupImageObject(m_pixels.data(), 224, 224);
    }
    EXPECT_EQ(names(), (std::vector<std::string>{"background", "aipqText", "aipqImage"}));
    EXPECT_EQ(m_log.count("objects size:3\n"), 5);
    EXPECT_EQ(m_log.count("delete previous text info.\n"), 2);
    EXPECT_EQ(m_log.count("delete previous image info.\n"), 2);
    // Replaced pictures give their surfaces back.
    EXPECT_EQ(fakedfb::liveSurfaces(), 1);

    m_stage.doRender();
    EXPECT_EQ(m_gc.kinds(), (Kinds{"fill", "font", "text", "image"}));

    // A text set up after the picture goes on top of it.
    m_stage.setupTextObject(text, 5);
    EXPECT_EQ(names(), (std::vector<std::string>{"background", "aipqImage", "aipqText"}));
    m_gc.ops.clear();
    m_stage.doRender();
    EXPECT_EQ(m_gc.kinds(), (Kinds{"fill", "image", "font", "text"}));
}

TEST_F(StageTest, RemovingThePictureGivesItsSurfaceBackAndDrawsNoImage) {
    std::string text = "t";
    m_stage.setupTextObject(text, 5);
    m_stage.setupImageObject(m_pixels.data(), 224, 224);
    ASSERT_EQ(fakedfb::liveSurfaces(), 1);
    m_stage.removeImageObject();
    EXPECT_EQ(fakedfb::liveSurfaces(), 0) << "the surface reading the caller's buffer must be gone";
    EXPECT_EQ(names(), (std::vector<std::string>{"background", "aipqText"}));
    m_stage.doRender();
    EXPECT_EQ(m_gc.kinds(), (Kinds{"fill", "font", "text"}));
    m_stage.removeImageObject();  // nothing left to remove: harmless
    EXPECT_EQ(names().size(), 2u);
}

TEST_F(StageTest, HiddenAndUnknownObjectsAreNotDrawn) {
    std::string text = "t";
    m_stage.setupTextObject(text, 5);
    m_stage.setupImageObject(m_pixels.data(), 224, 224);
    m_stage.renderObjects()[0]->visible = false;
    m_stage.renderObjects()[1]->visible = false;
    m_stage.doRender();
    EXPECT_EQ(m_gc.kinds(), (Kinds{"image"}));

    m_gc.ops.clear();
    m_stage.renderObjects()[1]->type = 1;
    m_stage.renderObjects()[2]->type = 3;
    m_stage.renderObjects()[0]->visible = true;
    m_stage.doRender();
    EXPECT_EQ(m_gc.kinds(), (Kinds{"fill"}));
    // Back to its own type, so that the stage frees it as what it is.
    m_stage.renderObjects()[1]->type = korvane::kRenderText;
    m_stage.renderObjects()[2]->type = korvane::kRenderImageBuffer;
}

TEST_F(StageTest, NothingIsDrawnWithoutAGraphicContext) {
    StageAIPQ stage;
    stage.init();
    std::string text = "t";
    stage.setupTextObject(text, 5);
    stage.doRender();
    EXPECT_TRUE(m_log.contains("[aipq] stage_aipq.cpp:"));
    EXPECT_TRUE(m_log.contains("No Grahpic context\n"));
    EXPECT_TRUE(m_gc.ops.empty());

    stage.renderRectangle(nullptr);
    stage.renderText(nullptr);
    stage.renderImageBuffer(nullptr);
    EXPECT_TRUE(m_log.contains("No rec\n"));
    EXPECT_TRUE(m_log.contains("Invalid TextObject\n"));
    EXPECT_TRUE(m_log.contains("invalid Render Object.\n"));
}

TEST_F(StageTest, ResourcesAreFoundByTheirKeyNotTheirName) {
    korvane::RenderObjectImage byKey("logo");
    byKey.resource = "dark_background";
    byKey.x = 5;
    byKey.y = 6;
    byKey.width = 70;
    byKey.height = 80;
    korvane::RenderObjectImage byName("logo2");
    byName.resource = "background";

    m_stage.renderImage(&byKey);
    EXPECT_TRUE(m_log.contains("Image Resource Not Found :[ dark_background]\n"));
    EXPECT_TRUE(m_gc.ops.empty());
    EXPECT_TRUE(fakedfb::callsTo("CreateImageProvider").empty());

    m_stage.loadResources();
    ASSERT_EQ(fakedfb::callsTo("CreateImageProvider").size(), 1u);
    EXPECT_EQ(fakedfb::callsTo("CreateImageProvider")[0].text,
              "/opt/webengine/resources/aipq_background.png");
    m_stage.renderImage(&byKey);
    ASSERT_EQ(m_gc.kinds(), (Kinds{"image"}));
    EXPECT_EQ(m_gc.ops[0].args, (std::vector<int>{5, 6, 70, 80}));
    // Width and height 0: the file's own size.
    EXPECT_EQ(m_gc.ops[0].image->width(), fakedfb::state().imageWidth);

    m_stage.renderImage(&byName);
    EXPECT_TRUE(m_log.contains("Image Resource Not Found :[ background]\n"));
    EXPECT_EQ(m_gc.ops.size(), 1u);
}

TEST_F(StageTest, DestroyingTheStageFreesPicturesAndResources) {
    {
        RecordingContext gc;
        StageAIPQ stage;
        stage.setGraphicContext(&gc);
        stage.init();
        stage.loadResources();
        stage.setupImageObject(m_pixels.data(), 224, 224);
        EXPECT_EQ(fakedfb::liveSurfaces(), 2);
    }
    EXPECT_EQ(fakedfb::liveSurfaces(), 0);
}

}  // namespace
