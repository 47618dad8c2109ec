// Debug overlay text, the frame kept for it, BMP dumps, and the reset applied whenever a gate
// closes.
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "ai_recognition.h"
#include "aipq_display.h"
#include "aipq_log.h"
#include "mem_monitor.h"
#include "picture_store.h"
#include "system_info_manager.h"
#include "system_setting_manager.h"

using telvo_ai_service::AiPQPredictLabel;
using telvo_ai_service::TelvoAiPQPredict;

namespace {
// Process-wide dump numbering; only the worker touches it.
int s_dumpCounter = 0;
}  // namespace

void AIRecognition::updateDebugInfo(bool keepLastResult, korvane::ai::PictureData* picture,
                                    AiPQPredictLabel& currentLabel, AiPQPredictLabel& previousLabel,
                                    std::vector<TelvoAiPQPredict>* predictions) {
    if (!m_showDebugWindow) {
        AM_LOGD("do not enable to show debug window.\n");
        return;
    }
    // Both sections keep their last text when not rebuilt.
    static std::string s_recognitionSection;
    static std::string s_pqSection;

    std::string memorySection = ">>>>>> Memory Info:";
    if (m_pMemoryMonitor != nullptr) {
        MemoryInfo info;
        std::memset(&info, 0, sizeof(info));
        m_pMemoryMonitor->getMemoryInfo(info);
        char buf[50];
        std::snprintf(buf, sizeof(buf), "\navailable: %d, buffers: %d, cached: %d, free: %d", info.available,
                      info.buffers, info.cached, info.free);
        memorySection += buf;
        std::snprintf(buf, sizeof(buf), "\nswapCached: %d, swapFree: %d, total: %d", info.swapCached,
                      info.swapFree, info.total);
        memorySection += buf;
    }

    if (!keepLastResult) {
        if (m_pRecognitionManager != nullptr) {
            s_recognitionSection = "\n>>>>>> Recognition Result:";
            s_recognitionSection += "\nCurrent Label: ";
            s_recognitionSection += m_pRecognitionManager->getLabelText(currentLabel);
            s_recognitionSection += "     Previous Label: ";
            s_recognitionSection += m_pRecognitionManager->getLabelText(previousLabel);
            s_recognitionSection += "\nPredict Labels: ";
            if (predictions != nullptr) {
                for (const TelvoAiPQPredict& p : *predictions) {
                    char buf[30];
                    std::snprintf(buf, sizeof(buf), "%s: %6.3f,  ",
                                  m_pRecognitionManager->getLabelText(p.label).c_str(),
                                  static_cast<double>(p.confidence));
                    s_recognitionSection += buf;
                }
            }
        }
        if (m_pSystemSettingManager != nullptr) {
            s_pqSection = "\n>>>>>> PQ Parameters:";
            std::map<std::string, int> offsets;
            m_pSystemSettingManager->getPQSettingOffset(currentLabel, offsets);
            int index = 0;
            for (const auto& entry : offsets) {
                if (index % 3 == 0) {
                    s_pqSection += "\n";
                }
                char buf[24];
                std::snprintf(buf, sizeof(buf), "%s: %d, ", entry.first.c_str(), entry.second);
                s_pqSection += buf;
                ++index;
            }
        }
    }

    std::string text = memorySection + s_recognitionSection + s_pqSection;
    AM_LOGD("debugInfo: %s.\n", text.c_str());

    if (!m_pDebugWindow) {
        m_pDebugWindow = korvane::aipq::AIPQDisplay::create();
        AM_LOGD("create debug window.\n");
    }
    if (m_pDebugWindow) {
        m_pDebugWindow->setupTextObject(text, 5);
        if (picture != nullptr && m_pBackupPicture != nullptr) {
            RGB2BGR(picture->width, picture->height, reinterpret_cast<char*>(m_pBackupPicture));
            m_pDebugWindow->setupImageObject(m_pBackupPicture, picture->width, picture->height);
        }
        m_pDebugWindow->Show();
    }
}

void AIRecognition::RGB2BGR(int width, int height, char* buffer) {
    if (buffer == nullptr) {
        AM_LOGE("picBuf is NULL.\n");
        return;
    }
    if (width < 1 || height < 1) {
        return;
    }
    const size_t stride = static_cast<size_t>(width) * 3;
    for (int y = 0; y < height; ++y) {
        char* row = buffer + stride * static_cast<size_t>(y);
        for (int x = 0; x < width; ++x) {
            char* px = row + static_cast<size_t>(x) * 3;
            char t = px[0];
            px[0] = px[2];
            px[2] = t;
        }
    }
}

void AIRecognition::backupPictrue(korvane::ai::PictureData* picture) {
    if (!m_showDebugWindow) {
        AM_LOGD("do not enable to show debug window.\n");
        return;
    }
    if (picture == nullptr) {
        AM_LOGE("pictureData is NULL.\n");
        return;
    }
    // Always 3 bytes a pixel, whatever the colour mode: every frame of the stream has one size.
    const size_t size = static_cast<size_t>(picture->width) * static_cast<size_t>(picture->height) * 3;
    if (m_pBackupPicture == nullptr) {
        m_pBackupPicture = new unsigned char[size];
    }
    if (picture->buffer != nullptr) {
        std::memcpy(m_pBackupPicture, picture->buffer, size);
    }
}

void AIRecognition::saveCaptureImage(korvane::ai::PictureData* picture) {
    PictureStore* store = PictureStore::getInstance();
    if (store == nullptr) {
        AM_LOGE("picture store instance is NULL.\n");
        return;
    }
    if (!store->enableDumpPicture()) {
        AM_LOGD("do not enable dump picture.\n");
        return;
    }
    char name[20];
    std::snprintf(name, sizeof(name), "image_%d.bmp", s_dumpCounter++);
    store->savePicture(picture, name);
}

void AIRecognition::clearDebugWindow() {
    if (!m_showDebugWindow) {
        AM_LOGD("do not enable to show debug window.\n");
        return;
    }
    // The overlay's picture surface reads the backup buffer in place: drop it before the buffer.
    if (m_pDebugWindow) {
        m_pDebugWindow->removeImageObject();
    }
    delete[] m_pBackupPicture;
    m_pBackupPicture = nullptr;
    if (!m_pDebugWindow) {
        AM_LOGD("m_pDebugWindow is NULL, do not need to clear.\n");
        return;
    }
    AM_LOGD("clear debug window.\n");
    m_pDebugWindow->Clear();
}

void AIRecognition::resetConfig() {
    // Frees the model's memory while recognition is held back, and withdraws the scene's offsets.
    if (m_pRecognitionManager != nullptr) {
        m_pRecognitionManager->releaseModel();
        m_pRecognitionManager->reset();
    }
    if (m_pSystemSettingManager != nullptr && m_pSystemInfoManager != nullptr &&
        m_pSystemInfoManager->getAIPQEnable()) {
        m_pSystemSettingManager->setPQPredictLabelResult(telvo_ai_service::Invalid);
    }
    clearDebugWindow();
    if (m_pSystemInfoManager != nullptr && m_pSystemInfoManager->getAIPQEnable()) {
        AiPQPredictLabel current = telvo_ai_service::Invalid;
        AiPQPredictLabel previous = telvo_ai_service::Invalid;
        std::vector<TelvoAiPQPredict> none;
        updateDebugInfo(false, nullptr, current, previous, &none);
    }
}
