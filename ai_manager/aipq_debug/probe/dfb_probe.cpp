// Tells whether DirectFB can start here: exit status 0 when it came up. A DirectFB that cannot
// start (no X display, no frame buffer) crashes the process it runs in from a thread of its own,
// so the overlay asks this program first instead of trying inside the daemon.
#include <directfb.h>
#include <sys/resource.h>
#include <unistd.h>

int main(int argc, char* argv[]) {
    // A failed start may well end in that crash: no core file for it.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    // The caller hands over its own command line, so that DirectFB reads the same settings here.
    IDirectFB* dfb = nullptr;
    if (DirectFBInit(&argc, &argv) != DFB_OK || DirectFBCreate(&dfb) != DFB_OK || dfb == nullptr) {
        _exit(1);
    }
    // A proper shutdown: the x11 system leaves its shared-memory images behind otherwise. Then no
    // exit handlers, which would only look at what DirectFB keeps until the end.
    dfb->Release(dfb);
    _exit(0);
}
