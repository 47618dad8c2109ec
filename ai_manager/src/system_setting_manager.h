#ifndef AI_MANAGER_SYSTEM_SETTING_MANAGER_H
#define AI_MANAGER_SYSTEM_SETTING_MANAGER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ai_service_protocol.h"
#include "pq_row.h"
#include "system_setting_interface.h"

// Positions of one PQ offset row.
enum PQ_SETTING_PARAMETERS : int32_t {
    PQ_BRIGHTNESS = 0,
    PQ_CONTRAST,
    PQ_SATURATION,
    PQ_SHARPNESS,
    PQ_MEMC,
    PQ_NR,
    PQ_COLORTUNER_MAG,
    PQ_COLORTUNER_MAG_B,
    PQ_COLORTUNER_MAG_S,
    PQ_COLORTUNER_MAG_H,
    PQ_COLORTUNER_RED,
    PQ_COLORTUNER_RED_B,
    PQ_COLORTUNER_RED_S,
    PQ_COLORTUNER_RED_H,
    PQ_COLORTUNER_YLW,
    PQ_COLORTUNER_YLW_B,
    PQ_COLORTUNER_YLW_S,
    PQ_COLORTUNER_YLW_H,
    PQ_COLORTUNER_GRN,
    PQ_COLORTUNER_GRN_B,
    PQ_COLORTUNER_GRN_S,
    PQ_COLORTUNER_GRN_H,
    PQ_COLORTUNER_CYN,
    PQ_COLORTUNER_CYN_B,
    PQ_COLORTUNER_CYN_S,
    PQ_COLORTUNER_CYN_H,
    PQ_COLORTUNER_BLU,
    PQ_COLORTUNER_BLU_B,
    PQ_COLORTUNER_BLU_S,
    PQ_COLORTUNER_BLU_H,
    PQ_COLORTUNER_FLSHTON,
    PQ_COLORTUNER_FLSHTON_B,
    PQ_COLORTUNER_FLSHTON_S,
    PQ_COLORTUNER_FLSHTON_H,
    PQ_SETTING_PARAMETERS_COUNT = pq_row::kSize,
};
static_assert(PQ_COLORTUNER_FLSHTON_H == pq_row::kSize - 1, "one enumerator per row position");
static_assert(PQ_COLORTUNER_MAG == pq_row::kColorTunerFirst, "colour tuner starts the same");

// Per-scene offsets, 20 rows of 34, indexed by the scene label.
extern const int s_PQSettingTable[ai_service_protocol::kLabelCount][PQ_SETTING_PARAMETERS_COUNT];

std::string toStringVideoParameter(PQ_SETTING_PARAMETERS parameter);

class SystemSettingManager {
public:
    explicit SystemSettingManager(std::shared_ptr<SystemSettingInterface> setting);
    ~SystemSettingManager();

    int setVideoBrightness(int value);
    int setVideoContrast(int value);
    int setVideoSaturation(int value);
    int setVideoSharpness(int value);
    int setVideoMEMC(int value);
    int setVideoNR(int value);
    int setVideoColorTunerFamily(std::vector<int>& values);
    int setVideoPQParameters(std::vector<int>& offsets);
    int getVideoBrightness();
    int getVideoContrast();
    int getVideoSaturation();
    int getVideoSharpness();
    int getVideoMEMC();
    int getVideoNR();
    int getVideoColorTunerFamily(std::vector<int>& values);

    bool isValidPQPredictLabel(telvo_ai_service::AiPQPredictLabel label);
    bool setPQPredictLabelResult(telvo_ai_service::AiPQPredictLabel label);
    bool getPQSettingOffset(telvo_ai_service::AiPQPredictLabel label, std::map<std::string, int>& offsets);

private:
    std::shared_ptr<SystemSettingInterface> m_systemSetting;
};

#endif
