#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_DFB_UTILS_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_DFB_UTILS_H

#include <directfb.h>

#include <optional>

#include "dfb_entry.h"
#include "overlay_log.h"

// A DirectFB call that must not fail: log the result, then let DirectFB end the process.
// Callers still return afterwards, so a handler that comes back leaves them in a safe state.
#define OVL_FATAL(ret, call)                                                                               \
    do {                                                                                                   \
        OVL_LOGE("DirectFBErrorFatal %d (ok is %d)\n\n", static_cast<int>(ret), static_cast<int>(DFB_OK)); \
        korvane::dfbErrorFatal(call, ret);                                                                 \
    } while (0)

namespace korvane {

// Whether DirectFB can start in this process. Found out once, by a separate probe program
// (aipq_dfb_probe, among this program's helpers), and kept: the answer is logged that once.
bool dfbAvailable();

// The process-wide root interface, created on first use and kept for the life of the process.
// Null when DirectFB cannot start here (no display, no frame buffer).
IDirectFB* getDFB();

// The one place a surface description is filled in. Without `caps` the description carries no
// capabilities flag; with `buffers` (two of them) DirectFB uses the caller's pixels in place.
struct SurfaceBuffer {
    void* data;
    int pitch;
};
DFBSurfaceDescription describeSurface(int width, int height, DFBSurfacePixelFormat format,
                                      std::optional<DFBSurfaceCapabilities> caps,
                                      const SurfaceBuffer* buffers = nullptr);

// An ARGB surface; with `data` the two buffers data[0]/pitch[0] and data[1]/pitch[1] are used
// in place.
IDirectFBSurface* createDFBSurface(int width, int height, void** data, int* pitch,
                                   DFBSurfaceCapabilities caps);

}  // namespace korvane

#endif
