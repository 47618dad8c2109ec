#include "synthetic_scenes.h"

#include <algorithm>
#include <cstddef>

#include "ai_service_protocol.h"

namespace host {

namespace {

constexpr int kWidth = ai_service_protocol::kPictureWidth;
constexpr int kHeight = ai_service_protocol::kPictureHeight;
const char* const kNames[kSyntheticSceneCount] = {"sky", "grass", "snow", "cartoon"};

// Small deterministic noise source so the built-in scenes come out the same on every run.
struct Lcg {
    uint32_t state;
    int next(int amplitude) {
        state = state * 1664525u + 1013904223u;
        return static_cast<int>((state >> 8) % static_cast<uint32_t>(2 * amplitude + 1)) - amplitude;
    }
};

uint8_t clampByte(int v) {
    return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

void setPixel(uint8_t* p, int r, int g, int b) {
    p[0] = clampByte(r);
    p[1] = clampByte(g);
    p[2] = clampByte(b);
}

// Coverage 0..255 of a soft-edged ellipse: a cloud, opaque inside and fading over some 12 pixels.
// Integer only, like every scene, so they come out the same whatever the floating-point code.
int cloudCover(int x, int y, int cx, int cy, int ax, int ay) {
    // 1 - d^2 of the normalised distance d, in 1/4096: about 2 (1 - d) near the rim.
    int dx = x - cx;
    int dy = y - cy;
    int inside = std::max(-4096, 4096 - (dx * dx * 4096 / (ax * ax) + dy * dy * 4096 / (ay * ay)));
    // Half-cover on the rim, full some 6 pixels inside it, none 6 pixels outside.
    int cover = 128 + inside * ay * 255 / (4096 * 24);
    return cover < 0 ? 0 : (cover > 255 ? 255 : cover);
}

// Cartoon: flat saturated shapes with hard dark outlines, painted back to front.
void cartoonPixel(int x, int y, uint8_t* p) {
    int r = 255, g = 215, b = 40;  // yellow backdrop
    if (y >= 150) {
        r = 60, g = 190, b = 60;  // lawn
    }
    int dx = x - 70;
    int dy = y - 80;
    int d2 = dx * dx + dy * dy;
    if (d2 <= 40 * 40) {
        r = 230, g = 40, b = 40;  // ball
    }
    if (d2 >= 38 * 38 && d2 <= 42 * 42) {
        r = 20, g = 20, b = 20;
    }
    if (x >= 129 && x <= 200 && y >= 59 && y <= 130) {  // house with a 3-pixel outline
        bool outline = x <= 131 || x >= 198 || y <= 61 || y >= 128;
        r = outline ? 20 : 40, g = outline ? 20 : 90, b = outline ? 20 : 230;
    }
    // Roof: the triangle (120,60) (165,20) (210,60).
    if (y >= 20 && y <= 60 && 40 * (x - 120) >= 45 * (60 - y) && 40 * (210 - x) >= 45 * (60 - y)) {
        r = 200, g = 30, b = 160;
    }
    setPixel(p, r, g, b);
}

}  // namespace

const char* syntheticSceneName(int index) {
    return kNames[index];
}

void paintSyntheticScene(int index, uint8_t* rgb) {
    Lcg noise{static_cast<uint32_t>(index * 7919 + 17)};
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            uint8_t* p = rgb + (static_cast<size_t>(y) * kWidth + x) * 3;
            switch (index) {
                case 0: {  // blue sky, brighter towards the horizon, two soft clouds
                    int r = 40 + y * 90 / kHeight + noise.next(3);
                    int g = 105 + y * 75 / kHeight + noise.next(3);
                    int b = 215 + y * 25 / kHeight + noise.next(3);
                    int a = std::max(cloudCover(x, y, 60, 50, 40, 14), cloudCover(x, y, 165, 95, 32, 11));
                    setPixel(p, (r * (255 - a) + 245 * a) / 255, (g * (255 - a) + 245 * a) / 255,
                             (b * (255 - a) + 245 * a) / 255);
                    break;
                }
                case 1: {  // grass: textured green, blades as vertical streaks, darker at the bottom
                    int streak = ((x * 37) % 11) * 3 - 15;
                    int shade = -y * 30 / kHeight;
                    int r = 70 + shade / 2 + noise.next(12);
                    int g = 150 + streak + shade + noise.next(22);
                    int b = 45 + shade / 2 + noise.next(10);
                    setPixel(p, r, g, b);
                    break;
                }
                case 2: {  // snow field under a grey-white sky, bluish shadows
                    bool shadow = ((x + 2 * y) / 37) % 3 == 0 && y > kHeight / 3;
                    int base = shadow ? 212 : 238;
                    int n = noise.next(6);
                    setPixel(p, base - 6 + n, base - 2 + n, base + 8 + n);
                    break;
                }
                default:
                    cartoonPixel(x, y, p);
                    break;
            }
        }
    }
}

}  // namespace host
