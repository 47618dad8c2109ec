#include <cerrno>
#include <cstring>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "dbg_log.h"
#include "pq_row.h"
#include "system_setting.h"
#include "tv_state_dir.h"

#define SETTING_TAG "[Platform Adaptation]"

namespace {

constexpr size_t kPQRowSize = pq_row::kSize;
const char* const kColorTunerFamilyKey = "video_color_tuner_family";

// The atomic writer names its temporary file after the process, so two threads writing the same
// key would share it; one lock for the whole process keeps every instance's writes apart.
std::mutex& settingMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}

std::string joinRow(const std::vector<int>& values) {
    std::string line;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i != 0) {
            line += ' ';
        }
        line += std::to_string(values[i]);
    }
    line += '\n';
    return line;
}

}  // namespace

struct SystemSetting::Impl {
    int setScalar(const char* key, int value) {
        std::lock_guard<std::mutex> lock(settingMutex());
        if (!host::writeTvInt(key, value)) {
            DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "cannot write %s in %s: %s.\n", key,
                    host::tvStateDir().c_str(), std::strerror(errno));
            return -1;
        }
        DBG_LOG(DBG_LEVEL_DEBUG, SETTING_TAG, "%s = %d.\n", key, value);
        return 0;
    }

    int getScalar(const char* key) {
        host::ReadStatus status = host::ReadStatus::Ok;
        int value = host::readTvInt(key, &status);
        if (status == host::ReadStatus::Garbage) {
            DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "%s does not hold a number, reading 0.\n", key);
        }
        return value;
    }
};

SystemSetting::SystemSetting() : m_impl(new Impl) {}

SystemSetting::~SystemSetting() {}

int SystemSetting::setVideoBrightness(int value) {
    return m_impl->setScalar("video_brightness", value);
}

int SystemSetting::setVideoContrast(int value) {
    return m_impl->setScalar("video_contrast", value);
}

int SystemSetting::setVideoSaturation(int value) {
    return m_impl->setScalar("video_saturation", value);
}

int SystemSetting::setVideoSharpness(int value) {
    return m_impl->setScalar("video_sharpness", value);
}

int SystemSetting::setVideoMEMC(int value) {
    return m_impl->setScalar("video_memc", value);
}

int SystemSetting::setVideoNR(int value) {
    return m_impl->setScalar("video_nr", value);
}

int SystemSetting::setVideoColorTunerFamily(std::vector<int>& values) {
    std::lock_guard<std::mutex> lock(settingMutex());
    if (!host::writeTvFileAtomic(kColorTunerFamilyKey, joinRow(values))) {
        DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "cannot write %s in %s: %s.\n", kColorTunerFamilyKey,
                host::tvStateDir().c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

int SystemSetting::setVideoPQParameters(std::vector<int>& offsets) {
    if (offsets.size() != kPQRowSize) {
        DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "refusing a PQ row of %d values, expected %d.\n",
                static_cast<int>(offsets.size()), static_cast<int>(kPQRowSize));
        return -1;
    }
    const std::string line = joinRow(offsets);
    std::lock_guard<std::mutex> lock(settingMutex());
    // State file first, so that a row that could not be applied leaves no history line.
    if (!host::writeTvFileAtomic(host::tvfile::kPqParameters, line)) {
        DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "cannot write %s in %s: %s.\n", host::tvfile::kPqParameters,
                host::tvStateDir().c_str(), std::strerror(errno));
        return -1;
    }
    if (!host::appendTvFile(host::tvfile::kPqHistory, line)) {
        DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "cannot append to %s in %s: %s.\n", host::tvfile::kPqHistory,
                host::tvStateDir().c_str(), std::strerror(errno));
        return -1;
    }
    DBG_LOG(DBG_LEVEL_DEBUG, SETTING_TAG, "PQ parameters applied: %s", line.c_str());
    return 0;
}

int SystemSetting::getVideoBrightness() {
    return m_impl->getScalar("video_brightness");
}

int SystemSetting::getVideoContrast() {
    return m_impl->getScalar("video_contrast");
}

int SystemSetting::getVideoSaturation() {
    return m_impl->getScalar("video_saturation");
}

int SystemSetting::getVideoSharpness() {
    return m_impl->getScalar("video_sharpness");
}

int SystemSetting::getVideoMEMC() {
    return m_impl->getScalar("video_memc");
}

int SystemSetting::getVideoNR() {
    return m_impl->getScalar("video_nr");
}

int SystemSetting::getVideoColorTunerFamily(std::vector<int>& values) {
    values.clear();
    std::istringstream in(host::readTvText(kColorTunerFamilyKey));
    int value = 0;
    while (in >> value) {
        values.push_back(value);
    }
    if (!in.eof()) {
        DBG_LOG(DBG_LEVEL_ERROR, SETTING_TAG, "%s holds something other than numbers.\n",
                kColorTunerFamilyKey);
        values.clear();
        return -1;
    }
    return 0;
}
