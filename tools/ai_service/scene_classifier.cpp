#include "scene_classifier.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace ai_service {

namespace {

constexpr int kLabelCount = kSceneLabelCount;
using ai_service_protocol::kLabelTexts;

std::string trimmedLower(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) {
        ++begin;
    }
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
        --end;
    }
    std::string out = text.substr(begin, end - begin);
    for (char& c : out) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

}  // namespace

Usability assessPicture(const uint8_t* rgb) {
    // Every other pixel of every other row is plenty for a yes/no answer.
    double sum[3] = {0, 0, 0};
    double sumSq[3] = {0, 0, 0};
    int bright = 0;
    int count = 0;
    double lumaSum = 0;
    for (int y = 0; y < kPictureHeight; y += 2) {
        const uint8_t* row = rgb + static_cast<size_t>(y) * kPictureWidth * 3;
        for (int x = 0; x < kPictureWidth; x += 2) {
            const uint8_t* p = row + x * 3;
            for (int c = 0; c < 3; ++c) {
                sum[c] += p[c];
                sumSq[c] += static_cast<double>(p[c]) * p[c];
            }
            int luma = (77 * p[0] + 150 * p[1] + 29 * p[2]) >> 8;
            lumaSum += luma;
            if (luma > 48) {
                ++bright;
            }
            ++count;
        }
    }
    if (lumaSum / count < 20.0 && bright * 50 < count) {
        return Usability::Dark;
    }
    double maxStd = 0;
    for (int c = 0; c < 3; ++c) {
        double mean = sum[c] / count;
        double var = sumSq[c] / count - mean * mean;
        maxStd = std::max(maxStd, std::sqrt(std::max(0.0, var)));
    }
    return maxStd < 4.0 ? Usability::Uniform : Usability::Usable;
}

int labelFromText(const std::string& text) {
    std::string wanted = trimmedLower(text);
    if (wanted.empty()) {
        return -1;
    }
    for (int i = 0; i < kLabelCount; ++i) {
        if (trimmedLower(kLabelTexts[i]) == wanted) {
            return i;
        }
    }
    return -1;
}

const char* labelText(int label) {
    return (label >= 0 && label < kLabelCount) ? kLabelTexts[label] : "Unknown";
}

Predictions topPredictions(const float* scoreByLabel) {
    std::array<int, kLabelCount> order;
    for (int i = 0; i < kLabelCount; ++i) {
        order[i] = i;
    }
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        float sa = std::isfinite(scoreByLabel[a]) ? scoreByLabel[a] : 0.0f;
        float sb = std::isfinite(scoreByLabel[b]) ? scoreByLabel[b] : 0.0f;
        return sa > sb;
    });
    Predictions out;
    for (int i = 0; i < kRecordCount; ++i) {
        float s = scoreByLabel[order[i]];
        out[i].label = static_cast<telvo_ai_service::AiPQPredictLabel>(order[i]);
        out[i].confidence = std::isfinite(s) ? std::min(1.0f, std::max(0.0f, s)) : 0.0f;
    }
    return out;
}

}  // namespace ai_service
