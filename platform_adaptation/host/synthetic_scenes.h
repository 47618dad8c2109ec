#ifndef PLATFORM_ADAPTATION_HOST_SYNTHETIC_SCENES_H
#define PLATFORM_ADAPTATION_HOST_SYNTHETIC_SCENES_H

#include <cstdint>

// Built-in test scenes of the host capture: clear cases of what the reference classifier tells
// apart, the same on every run.
namespace host {

constexpr int kSyntheticSceneCount = 4;

// "sky", "grass", "snow", "cartoon" for 0 to 3.
const char* syntheticSceneName(int index);

// Paints scene `index` (0 to kSyntheticSceneCount - 1) into a 224 x 224 RGB picture, rows packed.
void paintSyntheticScene(int index, uint8_t* rgb);

}  // namespace host

#endif
