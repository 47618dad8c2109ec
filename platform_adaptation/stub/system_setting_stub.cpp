// Every setting is accepted and goes nowhere; every reading is 0. A port applies the 34 offsets of
// a PQ row to the picture in one call.
#include "system_setting.h"

namespace {

constexpr size_t kPQRowSize = 34;

}  // namespace

struct SystemSetting::Impl {};

SystemSetting::SystemSetting() : m_impl(new Impl) {}

SystemSetting::~SystemSetting() = default;

int SystemSetting::setVideoBrightness(int) {
    return 0;
}

int SystemSetting::setVideoContrast(int) {
    return 0;
}

int SystemSetting::setVideoSaturation(int) {
    return 0;
}

int SystemSetting::setVideoSharpness(int) {
    return 0;
}

int SystemSetting::setVideoMEMC(int) {
    return 0;
}

int SystemSetting::setVideoNR(int) {
    return 0;
}

int SystemSetting::setVideoColorTunerFamily(std::vector<int>&) {
    return 0;
}

int SystemSetting::setVideoPQParameters(std::vector<int>& offsets) {
    return offsets.size() == kPQRowSize ? 0 : -1;
}

int SystemSetting::getVideoBrightness() {
    return 0;
}

int SystemSetting::getVideoContrast() {
    return 0;
}

int SystemSetting::getVideoSaturation() {
    return 0;
}

int SystemSetting::getVideoSharpness() {
    return 0;
}

int SystemSetting::getVideoMEMC() {
    return 0;
}

int SystemSetting::getVideoNR() {
    return 0;
}

int SystemSetting::getVideoColorTunerFamily(std::vector<int>& values) {
    values.clear();
    return 0;
}
