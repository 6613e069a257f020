// The library kindlet finds in plugins/Libs. Every start of kindlet opens it
// to read registrations, so it links nothing heavy: the renderer itself, with
// its ray tracing, image and mesh libraries, is opened on the first create,
// from plugins/pathtracer/ beside this library's folder.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <mutex>
#include <string>

#include "XoLoggingHost/XoLoggerGlue.h"
#include "XoRendererPlugin/XoRendererPluginDefine.h"

namespace {

typedef const XoRendererPluginSuite* (*SuiteFunction)(void);

const XoRendererPluginSuite* realSuite = nullptr;

std::string coreLibraryPath() {
  Dl_info info;
  if (!dladdr(reinterpret_cast<void*>(&coreLibraryPath), &info) || !info.dli_fname) return "";
  std::string self = info.dli_fname;
  const size_t slash = self.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : self.substr(0, slash);
  return folder + "/../pathtracer/pathtracer-core.so";
}

const XoRendererPluginSuite* loadCore() {
  static std::once_flag once;
  std::call_once(once, [] {
    const std::string path = coreLibraryPath();
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    std::string error;
    if (!library) {
      const char* reason = dlerror();
      error = reason ? reason : "unknown reason";
    } else if (auto get = reinterpret_cast<SuiteFunction>(dlsym(library, "KindletPathTracerSuite"))) {
      realSuite = get();
    } else {
      error = "it has no KindletPathTracerSuite";
    }
    if (!realSuite) {
      XoLoggingHost::XoLoggerGlue channel("PathTracer");
      if (channel.errorEnabled())
        channel.error("Cannot load the path tracer from \"" + path + "\": " + error, __FILE__,
                      __LINE__);
    }
  });
  return realSuite;
}

XoRendererPluginHandle create(XoSgIteratorStruct* scene, XoAttributeStruct* arguments) {
  const XoRendererPluginSuite* suite = loadCore();
  return suite ? suite->create(scene, arguments) : nullptr;
}

// Once an instance exists the core is loaded, so the other slots forward.
#define FORWARD(slot, ...) return realSuite->slot(__VA_ARGS__)
void destroy(XoRendererPluginHandle h) { realSuite->destroy(h); }
int32_t start(XoRendererPluginHandle h) { FORWARD(start, h); }
int32_t pauseRerender(XoRendererPluginHandle h) { FORWARD(pauseRerender, h); }
int32_t stop(XoRendererPluginHandle h) { FORWARD(stop, h); }
int32_t startLiveEditing(XoRendererPluginHandle h) { FORWARD(startLiveEditing, h); }
int32_t stopLiveEditing(XoRendererPluginHandle h) { FORWARD(stopLiveEditing, h); }
int32_t handleControlCommand(XoRendererPluginHandle h, const char* c) {
  FORWARD(handleControlCommand, h, c);
}
int32_t submitUpdate(XoRendererPluginHandle h, XoAttributeStruct* u) { FORWARD(submitUpdate, h, u); }
int32_t hasQueuedUpdates(XoRendererPluginHandle h) { FORWARD(hasQueuedUpdates, h); }
int32_t applyQueuedUpdates(XoRendererPluginHandle h) { FORWARD(applyQueuedUpdates, h); }
int32_t setSceneIterator(XoRendererPluginHandle h, XoSgIteratorStruct* it) {
  FORWARD(setSceneIterator, h, it);
}
int32_t setup(XoRendererPluginHandle h) { FORWARD(setup, h); }
int32_t teardown(XoRendererPluginHandle h) { FORWARD(teardown, h); }
#undef FORWARD

// Written out rather than made with XoRendererPluginSuiteFor: the core's own
// suite is made with it and already guards every slot, and a class here would
// add a second object per instance and a second guard to every call, only to
// forward the handle the core returns.
const XoRendererPluginSuite suite = {
    &create,           &destroy,          &start,
    &pauseRerender,    nullptr,           &stop,
    &startLiveEditing, &stopLiveEditing,  &handleControlCommand,
    &submitUpdate,     &hasQueuedUpdates, &applyQueuedUpdates,
    nullptr,           &setSceneIterator, &setup,
    &teardown};

}  // namespace

XO_DEFINE_RENDERER_PLUGIN("pathtracer", &suite, NULL)
