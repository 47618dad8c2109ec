#ifndef TOOLS_AI_SERVICE_REFERENCE_CLASSIFIER_H
#define TOOLS_AI_SERVICE_REFERENCE_CLASSIFIER_H

#include "scene_classifier.h"

namespace ai_service {

// Built-in reference classifier ("builtin:reference"). It is NOT a trained model: it sorts the
// pixels of a subsampled grid (every second pixel of every second row) into colour classes and
// measures how flat the picture is, and turns that into a plausible answer for clear scenes:
//   Sky        saturated blue (hue 185..255 degrees)
//   Grassland  green (hue 65..165 degrees)
//   Snow       bright and nearly colourless
//   Building   mid-grey, colourless
//   Indoor     warm orange/brown tones
//   Cartoon    few vivid flat colours with sharp edges between them
// Each colour class scores its share of the picture; Cartoon scores the product of flatness,
// edge density, palette concentration and vividness, and scales the colour shares down by what it
// takes. The five best come first; confidences lie in 0..1 and sum to at most 1. Black and
// single-colour pictures give "Invalid" at 1.0. Deterministic, no weights, no allocation; meant
// as a stand-in that lets the daemon run end to end on a PC, and as a fixture for tests.
class ReferenceClassifier : public SceneClassifier {
public:
    const char* name() const override { return "builtin:reference"; }
    bool classify(const uint8_t* rgb, Predictions* out, std::string* error) override;

    // The measurements behind a decision, for tests and tuning.
    struct Features {
        float sky;
        float grass;
        float snow;
        float grey;
        float warm;
        float flat;     // neighbour pairs that hardly differ
        float edge;     // neighbour pairs across a sharp edge
        float palette;  // share of the six most common coarse colours
        float vivid;    // strongly saturated, not dark
        float cartoon;  // combined cartoon score
    };
    static Features measure(const uint8_t* rgb);
};

}  // namespace ai_service

#endif
