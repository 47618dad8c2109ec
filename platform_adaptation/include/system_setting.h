#ifndef PLATFORM_ADAPTATION_SYSTEM_SETTING_H
#define PLATFORM_ADAPTATION_SYSTEM_SETTING_H

#include <memory>

#include "system_setting_interface.h"

// The platform's picture-setting client. Each platform layer supplies the definitions.
class SystemSetting : public SystemSettingInterface {
public:
    SystemSetting();
    ~SystemSetting() override;
    SystemSetting(const SystemSetting&) = delete;
    SystemSetting& operator=(const SystemSetting&) = delete;

    int setVideoBrightness(int value) override;
    int setVideoContrast(int value) override;
    int setVideoSaturation(int value) override;
    int setVideoSharpness(int value) override;
    int setVideoMEMC(int value) override;
    int setVideoNR(int value) override;
    int setVideoColorTunerFamily(std::vector<int>& values) override;
    int setVideoPQParameters(std::vector<int>& offsets) override;
    int getVideoBrightness() override;
    int getVideoContrast() override;
    int getVideoSaturation() override;
    int getVideoSharpness() override;
    int getVideoMEMC() override;
    int getVideoNR() override;
    int getVideoColorTunerFamily(std::vector<int>& values) override;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

#endif
