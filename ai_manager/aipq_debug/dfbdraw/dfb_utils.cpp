#include "dfb_utils.h"

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace korvane {

namespace {

std::mutex g_dfbMutex;
IDirectFB* g_dfb = nullptr;

constexpr int kProbePollMs = 10;
constexpr int kProbeTimeoutMs = 10000;

// When its system cannot start (no X display, no frame buffer) DirectFB's failed start-up tears
// down under its own dispatcher thread, which then crashes the process. So the first start is
// tried in a throw-away child, and this process follows only when the child came up.
bool dfbCanStart() {
    pid_t pid = fork();
    if (pid < 0) {
        OVL_LOGE("Cannot start the DirectFB probe: %s\n", strerror(errno));
        return false;
    }
    if (pid == 0) {
        IDirectFB* dfb = nullptr;
        if (dfbCreate(&dfb) != DFB_OK || dfb == nullptr) {
            _exit(1);
        }
        // A proper shutdown: the x11 system leaves its shared-memory images behind otherwise.
        dfb->Release(dfb);
        _exit(0);
    }

    int status = 0;
    for (int waited = 0;; waited += kProbePollMs) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            break;
        }
        if (done < 0 && errno != EINTR) {
            OVL_LOGE("Lost the DirectFB probe: %s\n", strerror(errno));
            return false;
        }
        if (waited >= kProbeTimeoutMs) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            OVL_LOGE("DirectFB probe hung for %d ms\n", kProbeTimeoutMs);
            return false;
        }
        usleep(kProbePollMs * 1000);
    }

    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return true;
    }
    if (WIFSIGNALED(status)) {
        OVL_LOGE("DirectFB cannot start here: probe died of signal %d\n", WTERMSIG(status));
    } else {
        OVL_LOGE("DirectFB cannot start here: probe exit status %d\n", WEXITSTATUS(status));
    }
    return false;
}

}  // namespace

IDirectFB* getDFB() {
    std::lock_guard<std::mutex> lock(g_dfbMutex);
    if (g_dfb == nullptr) {
        IDirectFB* dfb = nullptr;
        if (!dfbCanStart() || dfbCreate(&dfb) != DFB_OK || dfb == nullptr) {
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
