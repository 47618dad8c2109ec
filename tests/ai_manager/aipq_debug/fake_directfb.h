#ifndef TESTS_AI_MANAGER_AIPQ_DEBUG_FAKE_DIRECTFB_H
#define TESTS_AI_MANAGER_AIPQ_DEBUG_FAKE_DIRECTFB_H

// Link-time stand-in for libdirectfb: DirectFBInit, DirectFBCreate and DirectFBErrorFatal plus
// interface objects whose methods record every call and can be made to fail. Types come from the
// real directfb.h. Objects are never freed, so a stale pointer in the code under test reads a
// record instead of freed memory.

#include <directfb.h>

#include <string>
#include <vector>

namespace fakedfb {

struct Call {
    std::string object;  // "dfb", "layer", "window", "surface", "font", "provider"
    int id = 0;          // object number; surfaces, fonts and providers count from 1
    std::string method;
    std::vector<long> args;
    std::string text;
};

struct Surface {
    int id = 0;
    bool fromWindow = false;
    bool primary = false;
    DFBSurfaceDescription desc{};
    int releases = 0;
    IDirectFBSurface iface{};
};

struct Font {
    int id = 0;
    std::string path;
    DFBFontDescription desc{};
    int releases = 0;
    IDirectFBFont iface{};
};

struct Provider {
    int id = 0;
    std::string path;
    int releases = 0;
    IDirectFBImageProvider iface{};
};

struct Window {
    int id = 0;
    DFBWindowDescription desc{};
    Surface* surface = nullptr;
    IDirectFBWindow iface{};
};

struct Layer {
    int id = 0;
    DFBDisplayLayerID layerId = 0;
    IDirectFBDisplayLayer iface{};
};

constexpr int kFatalExitCode = 70;

struct State {
    // What the next calls do.
    DFBResult initResult = DFB_OK;
    DFBResult createResult = DFB_OK;
    bool crashInCreate = false;  // DirectFBCreate dies of SIGSEGV, as the real one does without display
    DFBResult getLayerResult = DFB_OK;
    DFBResult createWindowResult = DFB_OK;
    DFBResult setOpacityResult = DFB_OK;
    DFBResult windowSurfaceResult = DFB_OK;
    DFBResult createFontResult = DFB_OK;
    DFBResult createProviderResult = DFB_OK;
    DFBResult surfaceDescResult = DFB_OK;
    DFBResult renderToResult = DFB_OK;
    int failCreateSurfaceCall = 0;  // the n-th CreateSurface (1-based) fails; 0: none
    bool fatalReturns = false;      // DirectFBErrorFatal records and returns instead of ending the process
    int layerWidth = 1920;
    int layerHeight = 1080;
    int fontHeight = 34;
    int imageWidth = 64;  // what image providers describe
    int imageHeight = 48;
    int screenWidth = 1920;
    int screenHeight = 1080;
    int callDelayUs = 0;  // each call takes this long, to widen race windows

    // What happened.
    int initCalls = 0;
    bool initArgsNull = true;
    int createCalls = 0;
    int createSurfaceCalls = 0;
    std::vector<Call> calls;
    std::vector<std::string> fatalTexts;
    std::vector<Surface*> surfaces;
    std::vector<Font*> fonts;
    std::vector<Provider*> providers;
    std::vector<Window*> windows;
    std::vector<Layer*> layers;
};

State& state();
// Back to defaults with empty records. The root interface keeps its address across resets.
// Calls may come from several threads; the records themselves are kept consistent.
void reset();

IDirectFB* root();
std::vector<Call> callsTo(const std::string& method);
std::vector<Call> callsOn(const std::string& object, int id);
Surface* surfaceOf(IDirectFBSurface* iface);
// Surfaces made with CreateSurface that were not released yet.
int liveSurfaces();
int liveFonts();
int liveProviders();

}  // namespace fakedfb

#endif
