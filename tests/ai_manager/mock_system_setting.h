#ifndef TESTS_AI_MANAGER_MOCK_SYSTEM_SETTING_H
#define TESTS_AI_MANAGER_MOCK_SYSTEM_SETTING_H

#include <gmock/gmock.h>

#include <vector>

#include "system_setting_interface.h"

class MockSystemSetting : public SystemSettingInterface {
public:
    MOCK_METHOD(int, setVideoBrightness, (int), (override));
    MOCK_METHOD(int, setVideoContrast, (int), (override));
    MOCK_METHOD(int, setVideoSaturation, (int), (override));
    MOCK_METHOD(int, setVideoSharpness, (int), (override));
    MOCK_METHOD(int, setVideoMEMC, (int), (override));
    MOCK_METHOD(int, setVideoNR, (int), (override));
    MOCK_METHOD(int, setVideoColorTunerFamily, (std::vector<int>&), (override));
    MOCK_METHOD(int, setVideoPQParameters, (std::vector<int>&), (override));
    MOCK_METHOD(int, getVideoBrightness, (), (override));
    MOCK_METHOD(int, getVideoContrast, (), (override));
    MOCK_METHOD(int, getVideoSaturation, (), (override));
    MOCK_METHOD(int, getVideoSharpness, (), (override));
    MOCK_METHOD(int, getVideoMEMC, (), (override));
    MOCK_METHOD(int, getVideoNR, (), (override));
    MOCK_METHOD(int, getVideoColorTunerFamily, (std::vector<int>&), (override));
};

#endif
