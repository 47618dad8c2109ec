#include "fake_directfb.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

namespace fakedfb {

namespace {

State g_state;
IDirectFB g_root{};

// Everything the stand-in ever made, so that leak checkers see it as reachable, not lost.
template <typename T>
T* keep(T* object) {
    static auto* all = new std::vector<void*>();
    all->push_back(object);
    return object;
}

std::mutex g_recordMutex;

void record(const char* object, int id, const char* method, std::vector<long> args = {},
            std::string text = {}) {
    Call call;
    call.object = object;
    call.id = id;
    call.method = method;
    call.args = std::move(args);
    call.text = std::move(text);
    {
        std::lock_guard<std::mutex> lock(g_recordMutex);
        g_state.calls.push_back(std::move(call));
    }
    if (g_state.callDelayUs > 0) {
        usleep(static_cast<useconds_t>(g_state.callDelayUs));
    }
}

Surface* self(IDirectFBSurface* thiz) {
    return static_cast<Surface*>(thiz->priv);
}

// ---- IDirectFBSurface ----

DirectResult surfaceAddRef(IDirectFBSurface*) {
    return DR_OK;
}

DirectResult surfaceRelease(IDirectFBSurface* thiz) {
    ++self(thiz)->releases;
    record("surface", self(thiz)->id, "Release");
    return DR_OK;
}

DFBResult surfaceGetSize(IDirectFBSurface* thiz, int* width, int* height) {
    Surface* s = self(thiz);
    record("surface", s->id, "GetSize");
    *width = s->primary ? g_state.screenWidth : s->desc.width;
    *height = s->primary ? g_state.screenHeight : s->desc.height;
    return DFB_OK;
}

DFBResult surfaceFlip(IDirectFBSurface* thiz, const DFBRegion_C* region, DFBSurfaceFlipFlags flags) {
    if (region != nullptr) {
        record("surface", self(thiz)->id, "Flip", {1, region->x1, region->y1, region->x2, region->y2, flags});
    } else {
        record("surface", self(thiz)->id, "Flip", {0, flags});
    }
    return DFB_OK;
}

DFBResult surfaceClear(IDirectFBSurface* thiz, u8 r, u8 g, u8 b, u8 a) {
    record("surface", self(thiz)->id, "Clear", {r, g, b, a});
    return DFB_OK;
}

DFBResult surfaceSetBlittingFlags(IDirectFBSurface* thiz, DFBSurfaceBlittingFlags flags) {
    record("surface", self(thiz)->id, "SetBlittingFlags", {flags});
    return DFB_OK;
}

DFBResult surfaceSetSrcBlend(IDirectFBSurface* thiz, DFBSurfaceBlendFunction function) {
    record("surface", self(thiz)->id, "SetSrcBlendFunction", {function});
    return DFB_OK;
}

DFBResult surfaceSetDstBlend(IDirectFBSurface* thiz, DFBSurfaceBlendFunction function) {
    record("surface", self(thiz)->id, "SetDstBlendFunction", {function});
    return DFB_OK;
}

// args: source id, whether a source rectangle was given, destination x, y, w, h.
DFBResult surfaceStretchBlit(IDirectFBSurface* thiz, IDirectFBSurface* source,
                             const DFBRectangle_C* sourceRect, const DFBRectangle_C* dest) {
    if (source == nullptr || dest == nullptr) {
        record("surface", self(thiz)->id, "StretchBlit", {-1});
        return DFB_INVARG;
    }
    record("surface", self(thiz)->id, "StretchBlit",
           {self(source)->id, sourceRect != nullptr ? 1 : 0, dest->x, dest->y, dest->w, dest->h});
    return DFB_OK;
}

DFBResult surfaceSetColor(IDirectFBSurface* thiz, u8 r, u8 g, u8 b, u8 a) {
    record("surface", self(thiz)->id, "SetColor", {r, g, b, a});
    return DFB_OK;
}

DFBResult surfaceFillRectangle(IDirectFBSurface* thiz, int x, int y, int w, int h) {
    record("surface", self(thiz)->id, "FillRectangle", {x, y, w, h});
    return DFB_OK;
}

DFBResult surfaceDrawRectangle(IDirectFBSurface* thiz, int x, int y, int w, int h) {
    record("surface", self(thiz)->id, "DrawRectangle", {x, y, w, h});
    return DFB_OK;
}

DFBResult surfaceSetFont(IDirectFBSurface* thiz, IDirectFBFont* font) {
    record("surface", self(thiz)->id, "SetFont", {font != nullptr ? static_cast<Font*>(font->priv)->id : 0});
    return DFB_OK;
}

DFBResult surfaceDrawString(IDirectFBSurface* thiz, const char* text, int bytes, int x, int y,
                            DFBSurfaceTextFlags flags) {
    record("surface", self(thiz)->id, "DrawString", {bytes, x, y, flags}, text != nullptr ? text : "<null>");
    return DFB_OK;
}

Surface* newSurface(bool fromWindow) {
    auto* s = keep(new Surface());
    s->id = static_cast<int>(g_state.surfaces.size()) + 1;
    s->fromWindow = fromWindow;
    s->iface.priv = s;
    s->iface.AddRef = surfaceAddRef;
    s->iface.Release = surfaceRelease;
    s->iface.GetSize = surfaceGetSize;
    s->iface.Flip = surfaceFlip;
    s->iface.Clear = surfaceClear;
    s->iface.SetBlittingFlags = surfaceSetBlittingFlags;
    s->iface.SetSrcBlendFunction = surfaceSetSrcBlend;
    s->iface.SetDstBlendFunction = surfaceSetDstBlend;
    s->iface.StretchBlit = surfaceStretchBlit;
    s->iface.SetColor = surfaceSetColor;
    s->iface.FillRectangle = surfaceFillRectangle;
    s->iface.DrawRectangle = surfaceDrawRectangle;
    s->iface.SetFont = surfaceSetFont;
    s->iface.DrawString = surfaceDrawString;
    g_state.surfaces.push_back(s);
    return s;
}

// ---- IDirectFBFont ----

DirectResult fontAddRef(IDirectFBFont*) {
    return DR_OK;
}

DirectResult fontRelease(IDirectFBFont* thiz) {
    auto* f = static_cast<Font*>(thiz->priv);
    ++f->releases;
    record("font", f->id, "Release");
    return DR_OK;
}

DFBResult fontGetHeight(IDirectFBFont* thiz, int* height) {
    record("font", static_cast<Font*>(thiz->priv)->id, "GetHeight");
    *height = g_state.fontHeight;
    return DFB_OK;
}

// ---- IDirectFBImageProvider ----

DirectResult providerAddRef(IDirectFBImageProvider*) {
    return DR_OK;
}

DirectResult providerRelease(IDirectFBImageProvider* thiz) {
    auto* p = static_cast<Provider*>(thiz->priv);
    ++p->releases;
    record("provider", p->id, "Release");
    return DR_OK;
}

DFBResult providerGetSurfaceDescription(IDirectFBImageProvider* thiz, DFBSurfaceDescription* desc) {
    record("provider", static_cast<Provider*>(thiz->priv)->id, "GetSurfaceDescription");
    if (g_state.surfaceDescResult != DFB_OK) {
        return g_state.surfaceDescResult;
    }
    *desc = DFBSurfaceDescription{};
    desc->flags = static_cast<DFBSurfaceDescriptionFlags>(DSDESC_WIDTH | DSDESC_HEIGHT | DSDESC_PIXELFORMAT);
    desc->width = g_state.imageWidth;
    desc->height = g_state.imageHeight;
    desc->pixelformat = DSPF_RGB32;
    return DFB_OK;
}

DFBResult providerRenderTo(IDirectFBImageProvider* thiz, IDirectFBSurface* dest, const DFBRectangle_C* rect) {
    record("provider", static_cast<Provider*>(thiz->priv)->id, "RenderTo",
           {dest != nullptr ? self(dest)->id : 0, rect != nullptr ? 1 : 0});
    return g_state.renderToResult;
}

// ---- IDirectFBWindow ----

DirectResult windowAddRef(IDirectFBWindow*) {
    return DR_OK;
}

DirectResult windowRelease(IDirectFBWindow* thiz) {
    record("window", static_cast<Window*>(thiz->priv)->id, "Release");
    return DR_OK;
}

DFBResult windowSetOpacity(IDirectFBWindow* thiz, u8 opacity) {
    record("window", static_cast<Window*>(thiz->priv)->id, "SetOpacity", {opacity});
    return g_state.setOpacityResult;
}

DFBResult windowGetSurface(IDirectFBWindow* thiz, IDirectFBSurface** ret) {
    auto* w = static_cast<Window*>(thiz->priv);
    record("window", w->id, "GetSurface");
    if (g_state.windowSurfaceResult != DFB_OK) {
        return g_state.windowSurfaceResult;
    }
    if (w->surface == nullptr) {
        w->surface = newSurface(true);
        w->surface->desc.width = w->desc.width;
        w->surface->desc.height = w->desc.height;
    }
    *ret = &w->surface->iface;
    return DFB_OK;
}

// ---- IDirectFBDisplayLayer ----

DirectResult layerAddRef(IDirectFBDisplayLayer*) {
    return DR_OK;
}

DirectResult layerRelease(IDirectFBDisplayLayer* thiz) {
    record("layer", static_cast<Layer*>(thiz->priv)->id, "Release");
    return DR_OK;
}

DFBResult layerSetCooperativeLevel(IDirectFBDisplayLayer* thiz, DFBDisplayLayerCooperativeLevel level) {
    record("layer", static_cast<Layer*>(thiz->priv)->id, "SetCooperativeLevel", {level});
    return DFB_OK;
}

DFBResult layerSetBackgroundMode(IDirectFBDisplayLayer* thiz, DFBDisplayLayerBackgroundMode mode) {
    record("layer", static_cast<Layer*>(thiz->priv)->id, "SetBackgroundMode", {mode});
    return DFB_OK;
}

DFBResult layerSetBackgroundColor(IDirectFBDisplayLayer* thiz, u8 r, u8 g, u8 b, u8 a) {
    record("layer", static_cast<Layer*>(thiz->priv)->id, "SetBackgroundColor", {r, g, b, a});
    return DFB_OK;
}

DFBResult layerGetConfiguration(IDirectFBDisplayLayer* thiz, DFBDisplayLayerConfig* config) {
    record("layer", static_cast<Layer*>(thiz->priv)->id, "GetConfiguration");
    *config = DFBDisplayLayerConfig{};
    config->flags = static_cast<DFBDisplayLayerConfigFlags>(DLCONF_WIDTH | DLCONF_HEIGHT);
    config->width = g_state.layerWidth;
    config->height = g_state.layerHeight;
    return DFB_OK;
}

DFBResult layerCreateWindow(IDirectFBDisplayLayer* thiz, const DFBWindowDescription* desc,
                            IDirectFBWindow** ret) {
    record("layer", static_cast<Layer*>(thiz->priv)->id, "CreateWindow");
    if (g_state.createWindowResult != DFB_OK) {
        return g_state.createWindowResult;
    }
    auto* w = keep(new Window());
    w->id = static_cast<int>(g_state.windows.size()) + 1;
    w->desc = *desc;
    w->iface.priv = w;
    w->iface.AddRef = windowAddRef;
    w->iface.Release = windowRelease;
    w->iface.SetOpacity = windowSetOpacity;
    w->iface.GetSurface = windowGetSurface;
    g_state.windows.push_back(w);
    *ret = &w->iface;
    return DFB_OK;
}

// ---- IDirectFB ----

DirectResult rootAddRef(IDirectFB*) {
    return DR_OK;
}

DirectResult rootRelease(IDirectFB*) {
    record("dfb", 0, "Release");
    return DR_OK;
}

DFBResult rootSetCooperativeLevel(IDirectFB*, DFBCooperativeLevel level) {
    record("dfb", 0, "SetCooperativeLevel", {level});
    return DFB_OK;
}

DFBResult rootCreateSurface(IDirectFB*, const DFBSurfaceDescription* desc, IDirectFBSurface** ret) {
    ++g_state.createSurfaceCalls;
    record("dfb", 0, "CreateSurface",
           {desc->flags, desc->caps, desc->width, desc->height, desc->pixelformat});
    if (g_state.createSurfaceCalls == g_state.failCreateSurfaceCall) {
        return DFB_NOVIDEOMEMORY;
    }
    Surface* s = newSurface(false);
    s->desc = *desc;
    s->primary = (desc->flags & DSDESC_CAPS) != 0 && (desc->caps & DSCAPS_PRIMARY) != 0;
    *ret = &s->iface;
    return DFB_OK;
}

DFBResult rootGetDisplayLayer(IDirectFB*, DFBDisplayLayerID id, IDirectFBDisplayLayer** ret) {
    record("dfb", 0, "GetDisplayLayer", {static_cast<long>(id)});
    if (g_state.getLayerResult != DFB_OK) {
        return g_state.getLayerResult;
    }
    auto* l = keep(new Layer());
    l->id = static_cast<int>(g_state.layers.size()) + 1;
    l->layerId = id;
    l->iface.priv = l;
    l->iface.AddRef = layerAddRef;
    l->iface.Release = layerRelease;
    l->iface.SetCooperativeLevel = layerSetCooperativeLevel;
    l->iface.SetBackgroundMode = layerSetBackgroundMode;
    l->iface.SetBackgroundColor = layerSetBackgroundColor;
    l->iface.GetConfiguration = layerGetConfiguration;
    l->iface.CreateWindow = layerCreateWindow;
    g_state.layers.push_back(l);
    *ret = &l->iface;
    return DFB_OK;
}

DFBResult rootCreateImageProvider(IDirectFB*, const char* filename, IDirectFBImageProvider** ret) {
    record("dfb", 0, "CreateImageProvider", {}, filename);
    if (g_state.createProviderResult != DFB_OK) {
        return g_state.createProviderResult;
    }
    auto* p = keep(new Provider());
    p->id = static_cast<int>(g_state.providers.size()) + 1;
    p->path = filename;
    p->iface.priv = p;
    p->iface.AddRef = providerAddRef;
    p->iface.Release = providerRelease;
    p->iface.GetSurfaceDescription = providerGetSurfaceDescription;
    p->iface.RenderTo = providerRenderTo;
    g_state.providers.push_back(p);
    *ret = &p->iface;
    return DFB_OK;
}

DFBResult rootCreateFont(IDirectFB*, const char* filename, const DFBFontDescription* desc,
                         IDirectFBFont** ret) {
    record("dfb", 0, "CreateFont", {desc->flags, desc->attributes, desc->width, desc->height}, filename);
    if (g_state.createFontResult != DFB_OK) {
        return g_state.createFontResult;
    }
    auto* f = keep(new Font());
    f->id = static_cast<int>(g_state.fonts.size()) + 1;
    f->path = filename;
    f->desc = *desc;
    f->iface.priv = f;
    f->iface.AddRef = fontAddRef;
    f->iface.Release = fontRelease;
    f->iface.GetHeight = fontGetHeight;
    g_state.fonts.push_back(f);
    *ret = &f->iface;
    return DFB_OK;
}

void setUpRoot() {
    g_root.AddRef = rootAddRef;
    g_root.Release = rootRelease;
    g_root.SetCooperativeLevel = rootSetCooperativeLevel;
    g_root.CreateSurface = rootCreateSurface;
    g_root.GetDisplayLayer = rootGetDisplayLayer;
    g_root.CreateImageProvider = rootCreateImageProvider;
    g_root.CreateFont = rootCreateFont;
}

}  // namespace

State& state() {
    return g_state;
}

void reset() {
    g_state = State();
    setUpRoot();
}

IDirectFB* root() {
    setUpRoot();
    return &g_root;
}

std::vector<Call> callsTo(const std::string& method) {
    std::vector<Call> out;
    for (const Call& c : g_state.calls) {
        if (c.method == method) {
            out.push_back(c);
        }
    }
    return out;
}

std::vector<Call> callsOn(const std::string& object, int id) {
    std::vector<Call> out;
    for (const Call& c : g_state.calls) {
        if (c.object == object && c.id == id) {
            out.push_back(c);
        }
    }
    return out;
}

Surface* surfaceOf(IDirectFBSurface* iface) {
    return iface != nullptr ? self(iface) : nullptr;
}

int liveSurfaces() {
    int n = 0;
    for (const Surface* s : g_state.surfaces) {
        if (!s->fromWindow && s->releases == 0) {
            ++n;
        }
    }
    return n;
}

int liveFonts() {
    int n = 0;
    for (const Font* f : g_state.fonts) {
        n += f->releases == 0 ? 1 : 0;
    }
    return n;
}

int liveProviders() {
    int n = 0;
    for (const Provider* p : g_state.providers) {
        n += p->releases == 0 ? 1 : 0;
    }
    return n;
}

}  // namespace fakedfb

// ---- The library's entry points ----

extern "C" {

DFBResult DirectFBInit(int* argc, char*(*argv[])) {
    ++fakedfb::g_state.initCalls;
    fakedfb::g_state.initArgsNull = argc == nullptr && argv == nullptr;
    return fakedfb::g_state.initResult;
}

DFBResult DirectFBCreate(IDirectFB** interface_ptr) {
    ++fakedfb::g_state.createCalls;
    if (fakedfb::g_state.crashInCreate) {
        struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        signal(SIGSEGV, SIG_DFL);
        raise(SIGSEGV);
    }
    if (fakedfb::g_state.createResult != DFB_OK) {
        return fakedfb::g_state.createResult;
    }
    *interface_ptr = fakedfb::root();
    return DFB_OK;
}

DFBResult DirectFBErrorFatal(const char* msg, DFBResult result) {
    fakedfb::g_state.fatalTexts.push_back(msg != nullptr ? msg : "");
    if (fakedfb::g_state.fatalReturns) {
        return result;
    }
    std::fprintf(stderr, "fake DirectFBErrorFatal [%s]: %d\n", msg != nullptr ? msg : "",
                 static_cast<int>(result));
    std::fflush(stderr);
    _exit(fakedfb::kFatalExitCode);
}

}  // extern "C"
