#include "file_source.h"

#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ai_service_protocol.h"
#include "dbg_log.h"

#ifndef AIPQ_CAPTURE_PLUGIN_FILE
#define AIPQ_CAPTURE_PLUGIN_FILE "libaipq_capture_files.so"
#endif
#ifndef AIPQ_PLUGIN_DIR_FROM_BIN
#define AIPQ_PLUGIN_DIR_FROM_BIN "../lib/aipq"
#endif

namespace host {

namespace {

constexpr size_t kTextSize = 512;

static_assert(AIPQ_CAPTURE_FILES_WIDTH == ai_service_protocol::kPictureWidth &&
                  AIPQ_CAPTURE_FILES_HEIGHT == ai_service_protocol::kPictureHeight,
              "the plug-in delivers the picture size the AI service reads");

std::string directoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

}  // namespace

FileSource::~FileSource() {
    close();
    if (m_library != nullptr) {
        dlclose(m_library);
    }
}

bool FileSource::tryPlugin(const std::string& path, std::string* error) {
    // Never unloaded: image and video libraries are not made to be torn down inside a process.
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) {
        const char* why = dlerror();
        *error = why != nullptr ? why : path + ": cannot be loaded";
        return false;
    }
    auto abi = reinterpret_cast<AipqCaptureFilesAbiFn>(dlsym(library, "aipq_capture_files_abi"));
    auto open = reinterpret_cast<AipqCaptureFilesOpenFn>(dlsym(library, "aipq_capture_files_open"));
    auto read = reinterpret_cast<AipqCaptureFilesReadFn>(dlsym(library, "aipq_capture_files_read"));
    auto close = reinterpret_cast<AipqCaptureFilesCloseFn>(dlsym(library, "aipq_capture_files_close"));
    if (abi == nullptr || open == nullptr || read == nullptr || close == nullptr) {
        *error = path + " is not a capture plug-in";
        dlclose(library);
        return false;
    }
    if (abi() != AIPQ_CAPTURE_FILES_ABI) {
        *error = path + " is a capture plug-in of interface " + std::to_string(abi()) + ", not " +
                 std::to_string(AIPQ_CAPTURE_FILES_ABI);
        dlclose(library);
        return false;
    }
    m_library = library;
    m_open = open;
    m_read = read;
    m_close = close;
    DBG_LOG(DBG_LEVEL_NOTICE, "[Platform Adaptation]", "capture plug-in %s loaded.\n", path.c_str());
    return true;
}

bool FileSource::loadPlugin(std::string* error) {
    if (m_library != nullptr) {
        return true;
    }
    const char* env = std::getenv("AIPQ_CAPTURE_PLUGIN");
    if (env != nullptr && *env != '\0') {
        return tryPlugin(env, error);
    }
    // Installed, the plug-in has a directory of its own under the library directory; the build
    // tree keeps binaries in bin/ (tests in tests/) and modules in lib/.
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        *error = std::string("cannot tell where this program lives: ") + strerror(errno);
        return false;
    }
    self[n] = '\0';
    std::string dir = directoryOf(self);
    const std::string candidates[] = {dir + "/" AIPQ_PLUGIN_DIR_FROM_BIN "/" AIPQ_CAPTURE_PLUGIN_FILE,
                                      dir + "/../lib/" AIPQ_CAPTURE_PLUGIN_FILE,
                                      dir + "/" AIPQ_CAPTURE_PLUGIN_FILE};
    for (const std::string& candidate : candidates) {
        if (access(candidate.c_str(), F_OK) == 0) {
            return tryPlugin(candidate, error);
        }
    }
    *error = std::string(AIPQ_CAPTURE_PLUGIN_FILE " found neither in ") + dir +
             "/" AIPQ_PLUGIN_DIR_FROM_BIN ", " + dir + "/../lib nor in " + dir +
             " (AIPQ_CAPTURE_PLUGIN names it elsewhere)";
    return false;
}

bool FileSource::open(const std::string& source, std::string* text) {
    close();
    std::string error;
    if (!loadPlugin(&error)) {
        *text = "capture source " + source + " needs the capture plug-in: " + error + ".";
        return false;
    }
    char buffer[kTextSize] = {0};
    m_files = m_open(source.c_str(), buffer, sizeof(buffer));
    *text = buffer;
    return m_files != nullptr;
}

bool FileSource::read(uint8_t* rgb, int64_t positionUs, std::string* text) {
    if (m_files == nullptr) {
        *text = "no file source is open";
        return false;
    }
    char buffer[kTextSize] = {0};
    bool ok = m_read(m_files, rgb, positionUs, buffer, sizeof(buffer)) != 0;
    *text = buffer;
    return ok;
}

void FileSource::close() {
    if (m_files != nullptr) {
        m_close(m_files);
        m_files = nullptr;
    }
}

}  // namespace host
