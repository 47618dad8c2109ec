#ifndef TOOLS_AI_SERVICE_SCENE_CLASSIFIER_H
#define TOOLS_AI_SERVICE_SCENE_CLASSIFIER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "ai_service_protocol.h"

namespace ai_service {

using ai_service_protocol::kPictureBytes;
using ai_service_protocol::kPictureHeight;
using ai_service_protocol::kPictureWidth;
constexpr int kRecordCount = ai_service_protocol::kPredictRecordCount;
constexpr int kSceneLabelCount = ai_service_protocol::kLabelCount;

using Predictions = std::array<telvo_ai_service::TelvoAiPQPredict, kRecordCount>;

// What the image check (ai_service_protocol::kCmdImagePredict) reports for a picture.
enum class Usability : int32_t {
    Usable = 0,
    Dark = 1,     // black or nearly so
    Uniform = 2,  // one flat colour: nothing to recognise
};

// A 224 x 224 picture, 3 bytes a pixel, red-green-blue, rows tightly packed: what the capture
// leaves in the payload.
class SceneClassifier {
public:
    virtual ~SceneClassifier() = default;
    virtual const char* name() const = 0;
    // Five records, most confident first, confidences in 0..1 summing to at most 1.
    // False with a reason when the picture could not be classified at all.
    virtual bool classify(const uint8_t* rgb, Predictions* out, std::string* error) = 0;
};

// Black and single-colour pictures carry no scene, whichever backend classifies.
Usability assessPicture(const uint8_t* rgb);

// Scene label of a label text, case-insensitive, surrounding blanks ignored; -1 when none.
int labelFromText(const std::string& text);
const char* labelText(int label);

// scoreByLabel holds kSceneLabelCount scores indexed by label value. Sorts by confidence (then label value,
// for a stable order) and keeps the first five; fills up with labels not yet present at confidence 0.
Predictions topPredictions(const float* scoreByLabel);

}  // namespace ai_service

#endif
