#include "ZmqLibrary.h"

#include <dlfcn.h>

#include <string>

#include "XoRendererPlugin/XoRendererPluginManager.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

namespace {

const char kSoname[] = "libzmq.so.5";

struct Loaded {
  ZmqLibrary table = {};
  std::string error;  // empty once every function resolved
};

std::string loaderError() {
  const char* reason = dlerror();
  return reason != nullptr ? reason : "unknown reason";
}

Loaded load() {
  Loaded loaded;
  // Never closed: the library's own threads may outlive any one client.
  void* handle = dlopen(kSoname, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    loaded.error = std::string("cannot load the ZeroMQ library ") + kSoname + ": " + loaderError();
    return loaded;
  }
#define KINDLET_ZMQ_RESOLVE(name)                                                        \
  loaded.table.name = reinterpret_cast<decltype(loaded.table.name)>(dlsym(handle, #name)); \
  if (loaded.table.name == nullptr) {                                                    \
    loaded.error = std::string("the ZeroMQ library ") + kSoname +                        \
                   " lacks " #name ": " + loaderError();                             \
    return loaded;                                                                       \
  }
  KINDLET_ZMQ_FUNCTIONS(KINDLET_ZMQ_RESOLVE)
#undef KINDLET_ZMQ_RESOLVE
  return loaded;
}

}  // namespace

const ZmqLibrary& ZmqLibrary::get() {
  static const Loaded loaded = load();
  if (!loaded.error.empty()) throw Rendering::RendererPluginError(loaded.error);
  return loaded.table;
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
