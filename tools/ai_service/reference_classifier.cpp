#include "reference_classifier.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ai_service {

namespace {

constexpr int kStep = 2;
constexpr int kGridW = kPictureWidth / kStep;
constexpr int kGridH = kPictureHeight / kStep;

enum ColourClass { kNone, kSky, kGrass, kSnow, kGrey, kWarm };

float ramp(float value, float low, float high) {
    if (value <= low) {
        return 0.0f;
    }
    if (value >= high) {
        return 1.0f;
    }
    return (value - low) / (high - low);
}

// Hue in degrees for a pixel with a non-zero spread between its largest and smallest channel.
int hueDegrees(int r, int g, int b, int max, int chroma) {
    int h;
    if (max == r) {
        h = 60 * (g - b) / chroma;
    } else if (max == g) {
        h = 120 + 60 * (b - r) / chroma;
    } else {
        h = 240 + 60 * (r - g) / chroma;
    }
    return h < 0 ? h + 360 : h;
}

ColourClass classifyPixel(int r, int g, int b) {
    int max = std::max(r, std::max(g, b));
    int min = std::min(r, std::min(g, b));
    int chroma = max - min;
    if (max >= 175 && chroma * 100 <= max * 15 + 800) {
        return kSnow;
    }
    if (max >= 50 && max < 175 && chroma * 100 <= max * 12 + 600) {
        return kGrey;
    }
    if (chroma < 30) {
        return kNone;
    }
    int hue = hueDegrees(r, g, b, max, chroma);
    if (hue >= 185 && hue <= 255 && chroma >= 40 && max >= 90) {
        return kSky;
    }
    if (hue >= 65 && hue <= 165 && max >= 40) {
        return kGrass;
    }
    if (hue >= 15 && hue <= 50 && chroma >= 40 && max >= 80) {
        return kWarm;
    }
    return kNone;
}

inline int channelDistance(const uint8_t* a, const uint8_t* b) {
    return std::max(std::abs(a[0] - b[0]), std::max(std::abs(a[1] - b[1]), std::abs(a[2] - b[2])));
}

}  // namespace

ReferenceClassifier::Features ReferenceClassifier::measure(const uint8_t* rgb) {
    int classCount[6] = {0, 0, 0, 0, 0, 0};
    int flat = 0;
    int edge = 0;
    int pairs = 0;
    int vivid = 0;
    uint16_t palette[512];
    std::memset(palette, 0, sizeof(palette));

    const size_t rowBytes = static_cast<size_t>(kPictureWidth) * 3;
    for (int gy = 0; gy < kGridH; ++gy) {
        const uint8_t* row = rgb + static_cast<size_t>(gy * kStep) * rowBytes;
        const uint8_t* below = gy + 1 < kGridH ? row + kStep * rowBytes : nullptr;
        for (int gx = 0; gx < kGridW; ++gx) {
            const uint8_t* p = row + gx * kStep * 3;
            int r = p[0];
            int g = p[1];
            int b = p[2];
            ++classCount[classifyPixel(r, g, b)];
            int max = std::max(r, std::max(g, b));
            int min = std::min(r, std::min(g, b));
            if (max >= 100 && (max - min) * 2 >= max) {
                ++vivid;
            }
            ++palette[((r >> 5) << 6) | ((g >> 5) << 3) | (b >> 5)];
            if (gx + 1 < kGridW) {
                int d = channelDistance(p, p + kStep * 3);
                flat += d <= 3;
                edge += d >= 48;
                ++pairs;
            }
            if (below != nullptr) {
                int d = channelDistance(p, below + gx * kStep * 3);
                flat += d <= 3;
                edge += d >= 48;
                ++pairs;
            }
        }
    }

    const float samples = static_cast<float>(kGridW * kGridH);
    // Six largest palette bins.
    uint16_t top[6] = {0, 0, 0, 0, 0, 0};
    for (uint16_t count : palette) {
        if (count > top[5]) {
            int i = 5;
            while (i > 0 && count > top[i - 1]) {
                top[i] = top[i - 1];
                --i;
            }
            top[i] = count;
        }
    }
    int topSum = 0;
    for (uint16_t t : top) {
        topSum += t;
    }

    Features f;
    f.sky = classCount[kSky] / samples;
    f.grass = classCount[kGrass] / samples;
    f.snow = classCount[kSnow] / samples;
    f.grey = classCount[kGrey] / samples;
    f.warm = classCount[kWarm] / samples;
    f.flat = static_cast<float>(flat) / pairs;
    f.edge = static_cast<float>(edge) / pairs;
    f.palette = topSum / samples;
    f.vivid = vivid / samples;
    f.cartoon = ramp(f.flat, 0.55f, 0.80f) * ramp(f.edge, 0.004f, 0.02f) * ramp(f.palette, 0.75f, 0.92f) *
                ramp(f.vivid, 0.15f, 0.40f);
    return f;
}

bool ReferenceClassifier::classify(const uint8_t* rgb, Predictions* out, std::string* error) {
    if (rgb == nullptr || out == nullptr) {
        if (error != nullptr) {
            *error = "no picture";
        }
        return false;
    }
    float scores[kSceneLabelCount];
    std::fill(scores, scores + kSceneLabelCount, 0.0f);
    if (assessPicture(rgb) != Usability::Usable) {
        scores[telvo_ai_service::Invalid] = 1.0f;
        *out = topPredictions(scores);
        return true;
    }
    Features f = measure(rgb);
    // Colour shares are disjoint, so with the cartoon share taken out first the total stays <= 1.
    float rest = 1.0f - f.cartoon;
    scores[telvo_ai_service::Cartoon] = f.cartoon;
    scores[telvo_ai_service::Sky] = f.sky * rest;
    scores[telvo_ai_service::Grassland] = f.grass * rest;
    scores[telvo_ai_service::Snow] = f.snow * rest;
    scores[telvo_ai_service::Building] = f.grey * rest;
    scores[telvo_ai_service::Indoor] = f.warm * rest;
    *out = topPredictions(scores);
    return true;
}

}  // namespace ai_service
