// The reference classifier of the AI service on pictures whose scene is not in doubt.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "reference_classifier.h"
#include "scene_classifier.h"

using namespace ai_service;
using telvo_ai_service::AiPQPredictLabel;

namespace {

struct Rgb {
    int r, g, b;
};

// Deterministic noise, independent of the service's own.
class Noise {
public:
    explicit Noise(uint32_t seed) : m_state(seed) {}
    int operator()(int amplitude) {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return static_cast<int>(m_state % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude;
    }

private:
    uint32_t m_state;
};

uint8_t clampByte(int v) {
    return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

std::vector<uint8_t> paint(const std::function<Rgb(int x, int y)>& pixel) {
    std::vector<uint8_t> picture(kPictureBytes);
    for (int y = 0; y < kPictureHeight; ++y) {
        for (int x = 0; x < kPictureWidth; ++x) {
            Rgb c = pixel(x, y);
            uint8_t* p = &picture[(static_cast<size_t>(y) * kPictureWidth + x) * 3];
            p[0] = clampByte(c.r);
            p[1] = clampByte(c.g);
            p[2] = clampByte(c.b);
        }
    }
    return picture;
}

std::vector<uint8_t> skyPhoto() {
    Noise n(1);
    return paint([&](int x, int y) -> Rgb {
        int dx = x - 150, dy = y - 60;
        if (dx * dx / 4 + dy * dy < 500) {  // one cloud
            int v = 235 + n(6);
            return {v, v, v + 5};
        }
        return {30 + y / 3 + n(5), 90 + y / 3 + n(5), 200 + y / 6 + n(5)};
    });
}

std::vector<uint8_t> smoothSky() {
    return paint([](int, int y) -> Rgb { return {40 + y / 4, 110 + y / 4, 230}; });
}

std::vector<uint8_t> grassWithSkyStrip() {
    Noise n(2);
    return paint([&](int, int y) -> Rgb {
        if (y < 60) {
            return {60 + n(4), 130 + n(4), 225 + n(4)};
        }
        return {55 + n(15), 135 + n(30), 35 + n(12)};
    });
}

std::vector<uint8_t> snowWithTrees() {
    Noise n(3);
    return paint([&](int x, int y) -> Rgb {
        if (x % 50 < 4 && y > 80) {
            return {50 + n(5), 40 + n(5), 30 + n(5)};
        }
        int v = 232 + n(8);
        return {v - 4, v, v + 8};
    });
}

// Flat, saturated, outlined: mostly a blue background, so the colour share alone would say "Sky".
std::vector<uint8_t> cartoonOnBlue() {
    return paint([](int x, int y) -> Rgb {
        int dx = x - 70, dy = y - 90;
        int d2 = dx * dx + dy * dy;
        if (d2 < 35 * 35) {
            return {235, 40, 40};
        }
        if (d2 < 38 * 38) {
            return {10, 10, 10};
        }
        if (x > 130 && x < 200 && y > 100 && y < 170) {
            bool border = x < 134 || x > 196 || y < 104 || y > 166;
            return border ? Rgb{10, 10, 10} : Rgb{250, 220, 30};
        }
        if (y > 190) {
            return {40, 200, 60};
        }
        return {40, 120, 235};
    });
}

std::vector<uint8_t> uniform(Rgb c) {
    return paint([&](int, int) { return c; });
}

Predictions classified(const std::vector<uint8_t>& picture) {
    ReferenceClassifier classifier;
    Predictions out;
    std::string error;
    EXPECT_TRUE(classifier.classify(picture.data(), &out, &error)) << error;
    return out;
}

void expectWellFormed(const Predictions& p) {
    double sum = 0.0;
    for (int i = 0; i < kRecordCount; ++i) {
        EXPECT_GE(p[i].confidence, 0.0f);
        EXPECT_LE(p[i].confidence, 1.0f);
        if (i > 0) {
            EXPECT_GE(p[i - 1].confidence, p[i].confidence) << "not most confident first";
        }
        for (int j = 0; j < i; ++j) {
            EXPECT_NE(p[i].label, p[j].label) << "label listed twice";
        }
        sum += p[i].confidence;
    }
    EXPECT_LE(sum, 1.0 + 1e-5);
}

TEST(ReferenceClassifierTest, ClearScenesGetTheirLabelAboveTheDaemonsThreshold) {
    struct Case {
        const char* name;
        std::vector<uint8_t> picture;
        AiPQPredictLabel label;
    };
    std::vector<Case> cases = {
        {"sky photo", skyPhoto(), telvo_ai_service::Sky},
        {"smooth sky, no edges", smoothSky(), telvo_ai_service::Sky},
        {"grass under a strip of sky", grassWithSkyStrip(), telvo_ai_service::Grassland},
        {"snow with trees", snowWithTrees(), telvo_ai_service::Snow},
        {"cartoon on blue", cartoonOnBlue(), telvo_ai_service::Cartoon},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(assessPicture(c.picture.data()), Usability::Usable);
        Predictions p = classified(c.picture);
        EXPECT_EQ(p[0].label, c.label) << labelText(p[0].label) << " " << p[0].confidence;
        EXPECT_GE(p[0].confidence, 0.5f);
        expectWellFormed(p);
    }
}

TEST(ReferenceClassifierTest, MixedSceneRanksByShare) {
    Predictions p = classified(grassWithSkyStrip());
    ASSERT_EQ(p[0].label, telvo_ai_service::Grassland);
    EXPECT_EQ(p[1].label, telvo_ai_service::Sky);
    // 60 of 224 rows are sky: the shares follow the picture, not fixed numbers.
    EXPECT_NEAR(p[1].confidence, 60.0 / 224.0, 0.03);
    EXPECT_NEAR(p[0].confidence, 164.0 / 224.0, 0.05);
}

TEST(ReferenceClassifierTest, BlackAndUniformPicturesAreNotUsable) {
    Noise n(4);
    auto nearBlack = paint([&](int, int) -> Rgb {
        int v = 4 + n(4);
        return {v, v, v};
    });
    struct Case {
        const char* name;
        std::vector<uint8_t> picture;
        Usability expected;
    };
    std::vector<Case> cases = {
        {"black", uniform({0, 0, 0}), Usability::Dark},
        {"near black with noise", nearBlack, Usability::Dark},
        {"grey", uniform({128, 128, 128}), Usability::Uniform},
        {"flat sky blue", uniform({60, 130, 230}), Usability::Uniform},
        {"white", uniform({255, 255, 255}), Usability::Uniform},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(assessPicture(c.picture.data()), c.expected);
        Predictions p = classified(c.picture);
        EXPECT_EQ(p[0].label, telvo_ai_service::Invalid);
        EXPECT_FLOAT_EQ(p[0].confidence, 1.0f);
        expectWellFormed(p);
    }
}

TEST(ReferenceClassifierTest, DeterministicAndLeavesThePictureAlone) {
    std::vector<uint8_t> picture = cartoonOnBlue();
    const std::vector<uint8_t> copy = picture;
    Predictions a = classified(picture);
    Predictions b = classified(picture);
    EXPECT_EQ(0, std::memcmp(a.data(), b.data(), sizeof(a)));
    EXPECT_EQ(picture, copy);
}

TEST(SceneLabelsTest, TextsMapCaseInsensitivelyWithTheirSpelling) {
    EXPECT_EQ(labelFromText("sky"), telvo_ai_service::Sky);
    EXPECT_EQ(labelFromText("  GRASSLAND\r"), telvo_ai_service::Grassland);
    EXPECT_EQ(labelFromText("Fruite"), telvo_ai_service::Fruite);
    EXPECT_EQ(labelFromText("Fruit"), -1);
    EXPECT_EQ(labelFromText("cartoon"), telvo_ai_service::Cartoon);
    EXPECT_EQ(labelFromText(""), -1);
    EXPECT_EQ(labelFromText("Unknown"), -1);
    EXPECT_STREQ(labelText(telvo_ai_service::Indoor), "Indoor");
    EXPECT_STREQ(labelText(20), "Unknown");
}

TEST(SceneLabelsTest, TopPredictionsSortsClampsAndFills) {
    float scores[kSceneLabelCount] = {};
    scores[telvo_ai_service::Snow] = 0.3f;
    scores[telvo_ai_service::Dog] = 0.6f;
    scores[telvo_ai_service::Cat] = 0.3f;
    Predictions p = topPredictions(scores);
    EXPECT_EQ(p[0].label, telvo_ai_service::Dog);
    // Equal scores keep label order, so the answer never depends on sort internals.
    EXPECT_EQ(p[1].label, telvo_ai_service::Cat);
    EXPECT_EQ(p[2].label, telvo_ai_service::Snow);
    EXPECT_EQ(p[3].label, telvo_ai_service::Cartoon);
    EXPECT_EQ(p[4].label, telvo_ai_service::Soccerball);
    EXPECT_FLOAT_EQ(p[4].confidence, 0.0f);
}

}  // namespace
