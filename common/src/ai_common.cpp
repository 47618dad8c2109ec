#include "ai_common.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "ai_service_protocol.h"
#include "aipq_log.h"

int str2int(const char* text, int fallback) {
    if (text == nullptr) {
        AC_LOGE("pStr is NULL.\n");
        return fallback;
    }
    // An ERANGE the conversion sets is the caller's to see; otherwise its own errno comes back.
    // The conversion's errno is taken before any log line, which may set errno of its own.
    const int savedErrno = errno;
    errno = 0;
    const char* failure = nullptr;
    int value = fallback;
    try {
        value = std::stoi(std::string(text), nullptr, 10);
    } catch (const std::invalid_argument&) {
        failure = "fail: invalid argument.\n";
    } catch (const std::out_of_range&) {
        failure = "fail: out of range.\n";
    } catch (...) {
        failure = "fail: others.\n";
    }
    const int conversionErrno = errno;
    if (failure != nullptr) {
        AC_LOGE("%s", failure);
        value = fallback;
    }
    errno = conversionErrno != 0 ? conversionErrno : savedErrno;
    return value > 0 ? value : fallback;
}

void outputCharSerial(const char* title, const char* bytes, int count) {
    if (bytes == nullptr) {
        AC_LOGE("buf is NULL.\n");
        return;
    }
    std::string text = title != nullptr ? title : "";
    for (int i = 0; i < count; ++i) {
        char piece[10];
        std::snprintf(piece, sizeof(piece), "%d, ", static_cast<unsigned char>(bytes[i]));
        text += piece;
    }
    AC_LOGD("%s.\n", text.c_str());
}

bool fileExist(const char* path) {
    if (path == nullptr) {
        return false;
    }
    FILE* f = std::fopen(path, "rb");
    if (f == nullptr) {
        return false;
    }
    std::fclose(f);
    return true;
}

int currentThread() {
    return static_cast<int>(syscall(SYS_gettid));
}

void initPictureData(korvane::ai::PictureData& picture) {
    picture.buffer = nullptr;
    // The size the AI service's payload holds.
    picture.width = ai_service_protocol::kPictureWidth;
    picture.height = ai_service_protocol::kPictureHeight;
    picture.colorMode = korvane::ai::COLOR_MODE_RGB888;
    picture.reserved = 0;
}

int getChannels(korvane::ai::ColorMode mode) {
    return static_cast<unsigned int>(mode) - 1u < 2u ? 4 : 3;
}
