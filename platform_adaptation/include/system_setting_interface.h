#ifndef PLATFORM_ADAPTATION_SYSTEM_SETTING_INTERFACE_H
#define PLATFORM_ADAPTATION_SYSTEM_SETTING_INTERFACE_H

#include <vector>

// Picture settings of the TV. Setters return 0 on success.
class SystemSettingInterface {
public:
    virtual ~SystemSettingInterface() = default;

    virtual int setVideoBrightness(int value) = 0;
    virtual int setVideoContrast(int value) = 0;
    virtual int setVideoSaturation(int value) = 0;
    virtual int setVideoSharpness(int value) = 0;
    virtual int setVideoMEMC(int value) = 0;
    virtual int setVideoNR(int value) = 0;
    virtual int setVideoColorTunerFamily(std::vector<int>& values) = 0;
    // One 34-element offset row; the platform applies the offsets.
    virtual int setVideoPQParameters(std::vector<int>& offsets) = 0;
    virtual int getVideoBrightness() = 0;
    virtual int getVideoContrast() = 0;
    virtual int getVideoSaturation() = 0;
    virtual int getVideoSharpness() = 0;
    virtual int getVideoMEMC() = 0;
    virtual int getVideoNR() = 0;
    virtual int getVideoColorTunerFamily(std::vector<int>& values) = 0;
};

#endif
