#include "tv_state_dir.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace host {

const std::vector<std::string>& tvStateKeys() {
    static const std::vector<std::string> keys = {
        tvkey::kAipqSupported, tvkey::kAipqSwitch,       tvkey::kAipqAvailable,       tvkey::kSourceType,
        tvkey::kPlayerState,   tvkey::kEncryptedSource1, tvkey::kEncryptedSource6Or9, tvkey::kHdrType,
        tvkey::kGameMode,      tvkey::kPowerState};
    return keys;
}

std::string tvStateDir() {
    const char* env = std::getenv("AIPQ_TV_DIR");
    return (env != nullptr && env[0] != '\0') ? std::string(env) : std::string("/var/run/aipq_tv");
}

std::string tvStatePath(const std::string& key) {
    return tvStateDir() + "/" + key;
}

bool ensureTvStateDir() {
    std::string dir = tvStateDir();
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/') {
            std::string part = dir.substr(0, pos);
            if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
                return false;
            }
        }
    }
    return true;
}

std::string readTvText(const std::string& key) {
    std::ifstream in(tvStatePath(key));
    if (!in) {
        return std::string();
    }
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int readTvInt(const std::string& key, ReadStatus* status) {
    std::ifstream in(tvStatePath(key));
    if (!in) {
        if (status != nullptr) {
            *status = ReadStatus::Missing;
        }
        return 0;
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) {
        ++begin;
    }
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
        --end;
    }
    std::string trimmed = text.substr(begin, end - begin);
    errno = 0;
    char* stop = nullptr;
    long value = trimmed.empty() ? 0 : std::strtol(trimmed.c_str(), &stop, 10);
    if (trimmed.empty() || stop == nullptr || *stop != '\0' || errno == ERANGE || value < INT_MIN ||
        value > INT_MAX) {
        if (status != nullptr) {
            *status = ReadStatus::Garbage;
        }
        return 0;
    }
    if (status != nullptr) {
        *status = ReadStatus::Ok;
    }
    return static_cast<int>(value);
}

bool writeTvFileAtomic(const std::string& key, const std::string& content) {
    if (!ensureTvStateDir()) {
        return false;
    }
    std::string finalPath = tvStatePath(key);
    std::string tmpPath = tvStateDir() + "/." + key + ".tmp." + std::to_string(::getpid());
    int fd = ::open(tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const char* p = content.data();
    size_t left = content.size();
    while (left > 0) {
        ssize_t w = ::write(fd, p, left);
        if (w <= 0) {
            ::close(fd);
            ::unlink(tmpPath.c_str());
            return false;
        }
        p += w;
        left -= static_cast<size_t>(w);
    }
    ::close(fd);
    if (::rename(tmpPath.c_str(), finalPath.c_str()) != 0) {
        ::unlink(tmpPath.c_str());
        return false;
    }
    return true;
}

bool writeTvInt(const std::string& key, int value) {
    return writeTvFileAtomic(key, std::to_string(value) + "\n");
}

bool appendTvFile(const std::string& key, const std::string& line) {
    if (!ensureTvStateDir()) {
        return false;
    }
    int fd = ::open(tvStatePath(key).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    // One write with O_APPEND keeps concurrent appenders from interleaving inside a line.
    ssize_t w = ::write(fd, line.data(), line.size());
    ::close(fd);
    return w == static_cast<ssize_t>(line.size());
}

}  // namespace host
