#include "dfb_utils.h"

#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "osal.h"

extern char** environ;

namespace korvane {

namespace {

std::mutex g_dfbMutex;
IDirectFB* g_dfb = nullptr;
enum class Availability { Unknown, Yes, No };
Availability g_availability = Availability::Unknown;

const char* const kProbeName = "aipq_dfb_probe";
#ifndef AIPQ_PROBE_DIR_FROM_BIN
#define AIPQ_PROBE_DIR_FROM_BIN "../libexec/aipq"
#endif
constexpr int kProbePollMs = 10;
constexpr int kProbeTimeoutMs = 5000;

// Installed, in a helper directory of its own; in the build tree beside this program, or in bin/
// beside the directory of a test program.
std::string findProbe(std::string* dir) {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    self[n > 0 ? n : 0] = '\0';
    const char* slash = std::strrchr(self, '/');
    *dir = slash != nullptr ? std::string(self, static_cast<size_t>(slash - self)) : std::string(".");
    for (const std::string& path : {*dir + "/" AIPQ_PROBE_DIR_FROM_BIN "/" + kProbeName,
                                    *dir + "/" + kProbeName, *dir + "/../bin/" + kProbeName}) {
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return std::string();
}

// Why DirectFB cannot start here; empty when it can. A DirectFB that cannot start (no X display,
// no frame buffer) crashes its process from its own dispatcher thread, and which system it picks,
// needing what, depends on its settings and on the modules it finds: only trying tells. So a probe
// program tries, spawned rather than forked, so that nothing of this threaded process is copied.
std::string probeDFB() {
    std::string dir;
    const std::string probe = findProbe(&dir);
    if (probe.empty()) {
        return std::string(kProbeName) + " not found in " + dir + "/" AIPQ_PROBE_DIR_FROM_BIN ", " + dir +
               " or " + dir + "/../bin";
    }
    // This process's command line, so that DirectFB reads the same settings in the probe.
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (cmdline.empty()) {
        cmdline = probe;
    }
    cmdline.push_back('\0');
    std::vector<char*> argv;
    for (size_t at = 0; at < cmdline.size(); at = cmdline.find('\0', at) + 1) {
        argv.push_back(&cmdline[at]);
    }
    argv.push_back(nullptr);

    pid_t pid = -1;
    const int rc = posix_spawn(&pid, probe.c_str(), nullptr, nullptr, argv.data(), environ);
    if (rc != 0) {
        return "cannot start " + probe + ": " + strerror(rc);
    }
    int status = 0;
    for (int waited = 0;; waited += kProbePollMs) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            break;
        }
        if (done < 0 && errno != EINTR) {
            return std::string("lost the probe: ") + strerror(errno);
        }
        // Teardown does not wait out a probe that takes its time.
        const bool ending = osalWaitExitRequest(kProbePollMs);
        if (ending || waited >= kProbeTimeoutMs) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return ending ? std::string("the process is ending")
                          : "probe hung for " + std::to_string(kProbeTimeoutMs) + " ms";
        }
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return std::string();
    }
    return WIFSIGNALED(status) ? "probe died of signal " + std::to_string(WTERMSIG(status))
                               : "probe exit status " + std::to_string(WEXITSTATUS(status));
}

// Asked once per process and the answer kept, so that an overlay that cannot be shown is not tried
// (and logged) again on every cycle.
bool availableLocked() {
    if (g_availability == Availability::Unknown) {
        const std::string why = probeDFB();
        g_availability = why.empty() ? Availability::Yes : Availability::No;
        if (why.empty()) {
            OVL_LOGD("DirectFB can start here\n");
        } else {
            OVL_LOGE("DirectFB cannot start here (%s): no overlay\n", why.c_str());
        }
    }
    return g_availability == Availability::Yes;
}

}  // namespace

bool dfbAvailable() {
    std::lock_guard<std::mutex> lock(g_dfbMutex);
    return availableLocked();
}

IDirectFB* getDFB() {
    std::lock_guard<std::mutex> lock(g_dfbMutex);
    if (g_dfb == nullptr && availableLocked()) {
        IDirectFB* dfb = nullptr;
        if (dfbCreate(&dfb) != DFB_OK || dfb == nullptr) {
            OVL_LOGE("Failed to create DFB handle.\n");
            return nullptr;
        }
        g_dfb = dfb;
    }
    return g_dfb;
}

DFBSurfaceDescription describeSurface(int width, int height, DFBSurfacePixelFormat format,
                                      std::optional<DFBSurfaceCapabilities> caps,
                                      const SurfaceBuffer* buffers) {
    DFBSurfaceDescription desc;
    std::memset(&desc, 0, sizeof(desc));
    int flags = DSDESC_WIDTH | DSDESC_HEIGHT | DSDESC_PIXELFORMAT;
    if (caps) {
        flags |= DSDESC_CAPS;
        desc.caps = *caps;
    }
    desc.width = width;
    desc.height = height;
    desc.pixelformat = format;
    if (buffers != nullptr) {
        flags |= DSDESC_PREALLOCATED;
        for (int i = 0; i < 2; ++i) {
            desc.preallocated[i].data = buffers[i].data;
            desc.preallocated[i].pitch = buffers[i].pitch;
        }
    }
    desc.flags = static_cast<DFBSurfaceDescriptionFlags>(flags);
    return desc;
}

IDirectFBSurface* createDFBSurface(int width, int height, void** data, int* pitch,
                                   DFBSurfaceCapabilities caps) {
    IDirectFB* dfb = getDFB();
    if (dfb == nullptr) {
        OVL_LOGE("Unable to get DFB root interface\n");
        return nullptr;
    }

    const SurfaceBuffer buffers[2] = {{data != nullptr ? data[0] : nullptr, data != nullptr ? pitch[0] : 0},
                                      {data != nullptr ? data[1] : nullptr, data != nullptr ? pitch[1] : 0}};
    DFBSurfaceDescription desc =
        describeSurface(width, height, DSPF_ARGB, caps, data != nullptr ? buffers : nullptr);

    OVL_LOGD("Create DFB Surface  ...\n");
    IDirectFBSurface* surface = nullptr;
    DFBResult ret = dfb->CreateSurface(dfb, &desc, &surface);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "dfb->CreateSurface(dfb, &desc, &surface)");
        return nullptr;
    }
    return surface;
}

}  // namespace korvane
