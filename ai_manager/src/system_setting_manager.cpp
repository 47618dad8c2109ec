#include "system_setting_manager.h"

#include "aipq_log.h"
#include "system_setting.h"

using ai_service_protocol::kLabelCount;
using telvo_ai_service::AiPQPredictLabel;

// clang-format off
// brightness, contrast, saturation, sharpness, memc, nr, then for magenta, red, yellow, green, cyan,
// blue and flesh tone: the colour selector (0..6) followed by its B, S and H offsets.
const int s_PQSettingTable[kLabelCount][PQ_SETTING_PARAMETERS_COUNT] = {
    /* Cartoon     */ {0, -5, -6,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Soccerball  */ {0,  0,  0,  0,  5, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 2, 4, 3, 3, 2, 10, 2, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Sunflowers  */ {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Sky         */ {0, -1,  0,  0, -1, -1, 0, 0, 4, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  4, 0, 4, 2, 13, 0, 5, 2, 14, 0, 6, 0, 0,  0},
    /* Daisy       */ {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Fruite      */ {0,  0,  0,  2, -1, -1, 0, 0, 5, 0, 1, 0, 5,  0, 2, 0, 5, 0, 3, 0,  5, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 1, 2,  0},
    /* Tree        */ {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 2, 4, 3, 3, 2, 14, 4, 4, 0,  4, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Tulips      */ {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Cat         */ {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Performance */ {1,  0,  0,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Dandelion   */ {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Building    */ {0,  0,  5,  4, -1, -1, 0, 0, 8, 0, 1, 0, 8,  0, 2, 0, 4, 0, 3, 0,  8, 0, 4, 0,  8, 0, 5, 0,  8, 0, 6, 0, 6,  0},
    /* Food        */ {0,  2,  0,  0, -1, -1, 0, 0, 5, 0, 1, 0, 5,  0, 2, 0, 5, 0, 3, 0,  5, 0, 4, 0,  5, 0, 5, 0,  5, 0, 6, 1, 2,  0},
    /* Dog         */ {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Roses       */ {0,  2, 10,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Grassland   */ {0,  2,  0, -4, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 2, 4, 3, 3, 2, 14, 4, 4, 0,  4, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Face        */ {0,  0,  0, -4, -1, -1, 0, 0, 0, 0, 1, 0, 1, -1, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 2, 5, -1},
    /* Snow        */ {0, -3,  0,  0, -1,  1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Indoor      */ {1,  0,  0,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
    /* Invalid     */ {0,  0,  0,  0, -1, -1, 0, 0, 0, 0, 1, 0, 0,  0, 2, 0, 0, 0, 3, 0,  0, 0, 4, 0,  0, 0, 5, 0,  0, 0, 6, 0, 0,  0},
};
// clang-format on

std::string toStringVideoParameter(PQ_SETTING_PARAMETERS parameter) {
    if (static_cast<unsigned int>(parameter) >= static_cast<unsigned int>(PQ_SETTING_PARAMETERS_COUNT)) {
        return std::string();
    }
    return std::string(pq_row::kNames[parameter]);
}

SystemSettingManager::SystemSettingManager(std::shared_ptr<SystemSettingInterface> setting)
    : m_systemSetting(setting ? std::move(setting) : std::make_shared<SystemSetting>()) {}

SystemSettingManager::~SystemSettingManager() {}

int SystemSettingManager::setVideoBrightness(int value) {
    AM_LOGD("brightness : %d\n", value);
    return m_systemSetting->setVideoBrightness(value);
}

int SystemSettingManager::setVideoContrast(int value) {
    AM_LOGD("contrast : %d\n", value);
    return m_systemSetting->setVideoContrast(value);
}

int SystemSettingManager::setVideoSaturation(int value) {
    AM_LOGD("saturation : %d\n", value);
    return m_systemSetting->setVideoSaturation(value);
}

int SystemSettingManager::setVideoSharpness(int value) {
    AM_LOGD("sharpness : %d\n", value);
    return m_systemSetting->setVideoSharpness(value);
}

int SystemSettingManager::setVideoMEMC(int value) {
    AM_LOGD("memc : %d\n", value);
    return m_systemSetting->setVideoMEMC(value);
}

int SystemSettingManager::setVideoNR(int value) {
    AM_LOGD("nr : %d\n", value);
    return m_systemSetting->setVideoNR(value);
}

int SystemSettingManager::setVideoColorTunerFamily(std::vector<int>& values) {
    AM_LOGD("color tuner family, size : %d\n", static_cast<int>(values.size()));
    return m_systemSetting->setVideoColorTunerFamily(values);
}

int SystemSettingManager::setVideoPQParameters(std::vector<int>& offsets) {
    AM_LOGD("video PQ parameters, size : %d\n", static_cast<int>(offsets.size()));
    return m_systemSetting->setVideoPQParameters(offsets);
}

int SystemSettingManager::getVideoBrightness() {
    return m_systemSetting->getVideoBrightness();
}

int SystemSettingManager::getVideoContrast() {
    return m_systemSetting->getVideoContrast();
}

int SystemSettingManager::getVideoSaturation() {
    return m_systemSetting->getVideoSaturation();
}

int SystemSettingManager::getVideoSharpness() {
    return m_systemSetting->getVideoSharpness();
}

int SystemSettingManager::getVideoMEMC() {
    return m_systemSetting->getVideoMEMC();
}

int SystemSettingManager::getVideoNR() {
    return m_systemSetting->getVideoNR();
}

int SystemSettingManager::getVideoColorTunerFamily(std::vector<int>& values) {
    return m_systemSetting->getVideoColorTunerFamily(values);
}

bool SystemSettingManager::isValidPQPredictLabel(AiPQPredictLabel label) {
    // "Invalid" has a row of its own (the neutral one); negative values wrap above it.
    return static_cast<unsigned int>(label) <= static_cast<unsigned int>(telvo_ai_service::Invalid);
}

bool SystemSettingManager::setPQPredictLabelResult(AiPQPredictLabel label) {
    AM_LOGD("predict label : %d\n", static_cast<int>(label));
    if (!isValidPQPredictLabel(label)) {
        AM_LOGE("predict label is invalid value.\n");
        return false;
    }
    if (static_cast<unsigned int>(label) >= static_cast<unsigned int>(kLabelCount)) {
        AM_LOGE("predict label is out of s_PQSettingTable.\n");
        return false;
    }
    // The platform applies the whole row at once, so every scene change is a single call.
    const int* row = s_PQSettingTable[label];
    std::vector<int> offsets(row, row + PQ_SETTING_PARAMETERS_COUNT);
    return setVideoPQParameters(offsets) == 0;
}

bool SystemSettingManager::getPQSettingOffset(AiPQPredictLabel label, std::map<std::string, int>& offsets) {
    AM_LOGD("predict label : %d, offset.size() : %d\n", static_cast<int>(label),
            static_cast<int>(offsets.size()));
    if (!isValidPQPredictLabel(label)) {
        AM_LOGE("invalid label %d.\n", static_cast<int>(label));
        return false;
    }
    if (!offsets.empty()) {
        offsets.clear();
    }
    const int* row = s_PQSettingTable[label];
    for (int p = 0; p < PQ_SETTING_PARAMETERS_COUNT; ++p) {
        if (pq_row::isColorTunerSelector(p)) {
            continue;
        }
        offsets.insert(std::make_pair(toStringVideoParameter(static_cast<PQ_SETTING_PARAMETERS>(p)), row[p]));
    }
    return true;
}
