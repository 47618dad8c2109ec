#ifndef AI_MANAGER_AIPQ_DEBUG_DFBDRAW_DFB_ENTRY_H
#define AI_MANAGER_AIPQ_DEBUG_DFBDRAW_DFB_ENTRY_H

#include <directfb.h>

// DirectFB's free entry points. Everything else goes through its interfaces, so these three are
// all the daemon needs to bind: they are resolved from the library the first time the overlay is
// used, and a daemon that never shows the overlay never loads DirectFB at all.
namespace korvane {

DFBResult dfbInit(int* argc, char*(*argv[]));
DFBResult dfbCreate(IDirectFB** dfb);
DFBResult dfbErrorFatal(const char* msg, DFBResult result);

}  // namespace korvane

#endif
