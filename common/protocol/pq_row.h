#ifndef AIPQ_PROTOCOL_PQ_ROW_H
#define AIPQ_PROTOCOL_PQ_ROW_H

// The row of picture-quality offsets that the TV's setting service applies in one call: the
// daemon builds it, the setting service takes it, tvctl names its positions.
namespace pq_row {

constexpr int kSize = 34;

// Position names in row order; the daemon's overlay keys its offsets by them as well.
// clang-format off
inline constexpr const char* kNames[kSize] = {
    "brightness", "contrast", "saturation", "sharpness", "memc", "nr",
    "colortunerMag",     "colortunerMagB",     "colortunerMagS",     "colortunerMagH",
    "colortunerRed",     "colortunerRedB",     "colortunerRedS",     "colortunerRedH",
    "colortunerYlw",     "colortunerYlwB",     "colortunerYlwS",     "colortunerYlwH",
    "colortunerGrn",     "colortunerGrnB",     "colortunerGrnS",     "colortunerGrnH",
    "colortunerCyn",     "colortunerCynB",     "colortunerCynS",     "colortunerCynH",
    "colortunerBlu",     "colortunerBluB",     "colortunerBluS",     "colortunerBluH",
    "colortunerFlshTon", "colortunerFlshTonB", "colortunerFlshTonS", "colortunerFlshTonH",
};
// clang-format on

// From position 6 the colour tuner: per colour (magenta, red, yellow, green, cyan, blue, flesh
// tone) a selector holding the colour's number, then its B, S and H offsets.
constexpr int kColorTunerFirst = 6;
constexpr int kColorTunerStride = 4;
static_assert(kColorTunerFirst + 7 * kColorTunerStride == kSize, "seven colours end the row");

constexpr bool isColorTunerSelector(int position) {
    return position >= kColorTunerFirst && position < kSize &&
           (position - kColorTunerFirst) % kColorTunerStride == 0;
}

}  // namespace pq_row

#endif
