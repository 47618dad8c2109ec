#include "dfb_entry.h"

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>

#include "overlay_log.h"

namespace korvane {

namespace {

struct EntryPoints {
    DFBResult (*init)(int*, char*(*[]));
    DFBResult (*create)(IDirectFB**);
    DFBResult (*errorFatal)(const char*, DFBResult);
};

const EntryPoints* entryPoints() {
    static EntryPoints points{nullptr, nullptr, nullptr};
    static std::once_flag once;
    std::call_once(once, [] {
        // Global, so that the modules DirectFB loads itself (systems, font and image loaders)
        // bind to this copy of the library.
        void* lib = dlopen(AIPQ_DIRECTFB_SONAME, RTLD_NOW | RTLD_GLOBAL);
        if (lib == nullptr) {
            OVL_LOGE("Cannot load %s: %s\n", AIPQ_DIRECTFB_SONAME, dlerror());
            return;
        }
        points.init = reinterpret_cast<DFBResult (*)(int*, char*(*[]))>(dlsym(lib, "DirectFBInit"));
        points.create = reinterpret_cast<DFBResult (*)(IDirectFB**)>(dlsym(lib, "DirectFBCreate"));
        points.errorFatal =
            reinterpret_cast<DFBResult (*)(const char*, DFBResult)>(dlsym(lib, "DirectFBErrorFatal"));
        if (points.init == nullptr || points.create == nullptr || points.errorFatal == nullptr) {
            OVL_LOGE("%s lacks the DirectFB entry points\n", AIPQ_DIRECTFB_SONAME);
            points = EntryPoints{nullptr, nullptr, nullptr};
        }
    });
    return &points;
}

}  // namespace

DFBResult dfbInit(int* argc, char*(*argv[])) {
    const EntryPoints* p = entryPoints();
    return p->init != nullptr ? p->init(argc, argv) : DFB_UNSUPPORTED;
}

DFBResult dfbCreate(IDirectFB** dfb) {
    const EntryPoints* p = entryPoints();
    return p->create != nullptr ? p->create(dfb) : DFB_UNSUPPORTED;
}

DFBResult dfbErrorFatal(const char* msg, DFBResult result) {
    const EntryPoints* p = entryPoints();
    if (p->errorFatal != nullptr) {
        return p->errorFatal(msg, result);
    }
    // Only reached after a DirectFB call failed, which means the library was there.
    std::abort();
}

}  // namespace korvane
