#include "tv_state_dir.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>

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

namespace {

// Longer than any int with its sign, spaces and newline: a file that fills this holds no integer.
constexpr size_t kIntTextMax = 32;
constexpr size_t kTextMax = 64 * 1024;

// Anyone may put anything in the directory: a FIFO must not block the open, a device or a huge
// file must not be read, so open without blocking and keep only regular files.
int openRegular(const std::string& key, ReadStatus* status) {
    int fd = ::open(tvStatePath(key).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *status = (errno == ENOENT || errno == ENOTDIR) ? ReadStatus::Missing : ReadStatus::Unreadable;
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        *status = ReadStatus::Unreadable;
        return -1;
    }
    *status = ReadStatus::Ok;
    return fd;
}

// Up to `max` bytes from the start of the file.
std::string readUpTo(int fd, size_t max) {
    std::string text(max, '\0');
    size_t got = 0;
    while (got < max) {
        ssize_t n = ::read(fd, &text[got], max - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    ::close(fd);
    text.resize(got);
    return text;
}

}  // namespace

const char* readProblem(ReadStatus status) {
    switch (status) {
        case ReadStatus::Garbage:
            return "holds no integer";
        case ReadStatus::Unreadable:
            return "is not a readable regular file";
        default:
            return "";
    }
}

std::string readTvText(const std::string& key) {
    ReadStatus status = ReadStatus::Ok;
    int fd = openRegular(key, &status);
    return fd < 0 ? std::string() : readUpTo(fd, kTextMax);
}

int readTvInt(const std::string& key, ReadStatus* status) {
    ReadStatus ignored = ReadStatus::Ok;
    status = status != nullptr ? status : &ignored;
    int fd = openRegular(key, status);
    if (fd < 0) {
        return 0;
    }
    std::string text = readUpTo(fd, kIntTextMax);
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
    // strtol stops at a NUL, so the whole text must have been consumed, not just its C string.
    if (text.size() == kIntTextMax || trimmed.empty() || stop != trimmed.c_str() + trimmed.size() ||
        errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        *status = ReadStatus::Garbage;
        return 0;
    }
    return static_cast<int>(value);
}

std::string tvEntryProblem(const std::string& key) {
    struct stat st {};
    if (::lstat(tvStatePath(key).c_str(), &st) != 0 || S_ISREG(st.st_mode)) {
        return std::string();
    }
    switch (st.st_mode & S_IFMT) {
        case S_IFDIR:
            return "is a directory";
        case S_IFIFO:
            return "is a FIFO";
        case S_IFCHR:
        case S_IFBLK:
            return "is a device";
        case S_IFLNK:
            return "is a symbolic link";
        default:
            return "is not a regular file";
    }
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
