#include "XoRendererPlugin/XoRendererPluginManager.h"

#include <dirent.h>
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <sstream>
#include <utility>

#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"
#include "XoScenegraph/XoArbolite3.h"

namespace Rendering {
namespace {

const char* const kSource = "platform/renderplugin/src/XoRendererPluginManager";

const XoLoggingHost::XoLoggerGlue& logger() {
  static const XoLoggingHost::XoLoggerGlue channel("RendererPlugins");
  return channel;
}

void reportError(const std::string& text, int line) {
  if (logger().errorEnabled()) logger().error(text, kSource, line);
}

void reportDebug(const std::string& text, int line) {
  if (logger().debugEnabled()) logger().debug(text, kSource, line);
}

struct Registered {
  std::string name;
  std::string library;
  const XoRendererPluginSuite* suite;
  const XoRendererInfoPluginSuite* info;
};

struct Instance {
  const XoRendererPluginSuite* suite;
  XoRendererPluginHandle handle;
};

// Process-wide state. Never destroyed: an uninitialise hook or a plug-in
// thread may still reach it while static destructors run.
struct Registry {
  std::once_flag discovered;
  std::vector<std::string> searchedDirectories;
  std::vector<Registered> plugins;  // written once, under `discovered`

  std::mutex instancesMutex;
  std::vector<Instance> instances;
  bool hookRegistered = false;
};

Registry& registry() {
  static Registry* state = new Registry();
  return *state;
}

std::vector<std::string> pluginDirectories() {
  using Arbolite3::XoConfiguration::v1::Config;
  std::vector<std::string> dirs;
  const std::string root = Config().get("SELVANE_ROOT");
  if (!root.empty()) dirs.push_back(root + "/plugins/Libs");
  const std::string path = Config().get("SELVANE_RENDERER_PLUGIN_PATH");
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find(':', begin);
    if (end == std::string::npos) end = path.size();
    if (end > begin) dirs.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return dirs;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The *.so files of a directory, sorted so that the first-wins rule for
// duplicate names does not depend on the file system's order.
std::vector<std::string> librariesIn(const std::string& dir) {
  std::vector<std::string> files;
  DIR* handle = opendir(dir.c_str());
  if (handle == nullptr) {
    reportDebug("renderer plug-in directory " + dir + " cannot be read; skipped", __LINE__);
    return files;
  }
  while (const dirent* entry = readdir(handle)) {
    std::string name = entry->d_name;
    if (!endsWith(name, ".so")) continue;
    std::string full = dir + "/" + name;
    struct stat info;
    if (stat(full.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    files.push_back(full);
  }
  closedir(handle);
  std::sort(files.begin(), files.end());
  return files;
}

void loadLibrary(const std::string& path, std::vector<Registered>& plugins) {
  // Libraries stay loaded for the life of the process: instances and the
  // threads they started may run plug-in code until the very end.
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = dlerror();
    reportError("cannot load renderer plug-in library " + path + ": " +
                    (reason ? reason : "unknown dlopen failure"),
                __LINE__);
    return;
  }
  auto count = reinterpret_cast<XoPluginRegistrationCountFn>(
      dlsym(library, XO_PLUGIN_REGISTRATION_COUNT_SYMBOL));
  auto at = reinterpret_cast<XoPluginRegistrationAtFn>(
      dlsym(library, XO_PLUGIN_REGISTRATION_AT_SYMBOL));
  if (count == nullptr || at == nullptr) {
    reportError("renderer plug-in library " + path +
                    " exports no registration (" XO_PLUGIN_REGISTRATION_COUNT_SYMBOL
                    " and " XO_PLUGIN_REGISTRATION_AT_SYMBOL " are required); skipped",
                __LINE__);
    return;
  }
  const int n = count();
  if (n <= 0) {
    reportError("renderer plug-in library " + path + " registers no renderer; skipped",
                __LINE__);
    return;
  }
  for (int i = 0; i < n; ++i) {
    const XoRendererPluginRegistration* reg = at(i);
    std::ostringstream where;
    where << "renderer plug-in library " << path << ", registration " << i;
    if (reg == nullptr) {
      reportError(where.str() + ": no record; skipped", __LINE__);
      continue;
    }
    if (reg->apiVersion != XO_RENDERER_PLUGIN_API_VERSION) {
      std::ostringstream text;
      text << where.str() << ": API version " << reg->apiVersion << ", expected "
           << XO_RENDERER_PLUGIN_API_VERSION << "; skipped";
      reportError(text.str(), __LINE__);
      continue;
    }
    if (reg->name == nullptr || reg->name[0] == '\0') {
      reportError(where.str() + ": empty name; skipped", __LINE__);
      continue;
    }
    const std::string name = reg->name;
    if (reg->suite == nullptr) {
      reportError(where.str() + " (\"" + name + "\"): no suite; skipped", __LINE__);
      continue;
    }
    auto same = std::find_if(plugins.begin(), plugins.end(),
                             [&](const Registered& r) { return r.name == name; });
    if (same != plugins.end()) {
      reportError(where.str() + ": the name \"" + name + "\" is already registered by " +
                      same->library + "; the first registration is kept",
                  __LINE__);
      continue;
    }
    plugins.push_back(Registered{name, path, reg->suite, reg->info});
    reportDebug("renderer plug-in \"" + name + "\" registered by " + path, __LINE__);
  }
}

void discover(Registry& state) {
  std::vector<Registered> plugins;
  std::set<std::string> seen;  // a directory listed twice loads once
  const std::vector<std::string> dirs = pluginDirectories();
  for (const std::string& dir : dirs) {
    for (const std::string& path : librariesIn(dir)) {
      char resolved[PATH_MAX];
      std::string key = realpath(path.c_str(), resolved) ? resolved : path;
      if (!seen.insert(key).second) continue;
      loadLibrary(path, plugins);
    }
  }
  state.searchedDirectories = dirs;
  state.plugins = std::move(plugins);
}

Registry& discovered() {
  Registry& state = registry();
  std::call_once(state.discovered, discover, std::ref(state));
  return state;
}

std::string searchedText(const Registry& state) {
  if (state.searchedDirectories.empty())
    return " (no plug-in directory: neither SELVANE_ROOT nor SELVANE_RENDERER_PLUGIN_PATH is set)";
  std::string text = " (searched:";
  for (const std::string& dir : state.searchedDirectories) text += " " + dir;
  return text + ")";
}

const Registered& find(const std::string& name) {
  Registry& state = discovered();
  for (const Registered& r : state.plugins)
    if (r.name == name) return r;
  throw RendererPluginError("no renderer plug-in registers the name \"" + name + "\"" +
                            searchedText(state));
}

void destroyOnUninitialize(void*) {
  {
    // The scene library forgets its hooks once they ran; a later instance
    // registers again.
    Registry& state = registry();
    std::lock_guard<std::mutex> lock(state.instancesMutex);
    state.hookRegistered = false;
  }
  XoRendererPluginManager::destroyInstances();
}

}  // namespace

XoRendererPlugin XoRendererPluginManager::getRendererPlugin(const std::string& name,
                                                            XoSgIteratorStruct* iterator,
                                                            XoAttributeStruct* arguments) {
  const Registered& plugin = find(name);
  if (plugin.suite->create == nullptr)
    throw RendererPluginError("renderer plug-in \"" + name + "\" (" + plugin.library +
                              ") has no create function");
  XoRendererPluginHandle handle = plugin.suite->create(iterator, arguments);
  if (handle == nullptr)
    throw RendererPluginError("renderer plug-in \"" + name + "\" (" + plugin.library +
                              ") failed to create an instance");

  Registry& state = registry();
  bool registerHook = false;
  {
    std::lock_guard<std::mutex> lock(state.instancesMutex);
    state.instances.push_back(Instance{plugin.suite, handle});
    registerHook = !state.hookRegistered;
    state.hookRegistered = true;
  }
  if (registerHook) XoArbolite3AddUninitializeHook(destroyOnUninitialize, nullptr);

  XoRendererPlugin result;
  // The record's suite is non-const for the callers' sake; nobody writes it.
  result.suite = const_cast<XoRendererPluginSuite*>(plugin.suite);
  result.handle = handle;
  return result;
}

void XoRendererPluginManager::destroyInstances() {
  std::vector<Instance> instances;
  {
    Registry& state = registry();
    std::lock_guard<std::mutex> lock(state.instancesMutex);
    instances.swap(state.instances);
  }
  // Outside the lock: a plug-in's destroy may itself create or look up.
  for (auto it = instances.rbegin(); it != instances.rend(); ++it)
    if (it->suite->destroy != nullptr) it->suite->destroy(it->handle);
}

std::vector<std::string> XoRendererPluginManager::getRegisteredNames() {
  std::vector<std::string> names;
  for (const Registered& r : discovered().plugins) names.push_back(r.name);
  return names;
}

Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin
XoRendererInfoPluginManager::getRendererInfoPluginByRegisteredName(const std::string& name) {
  const Registered& plugin = find(name);
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  info.registeredName = plugin.name;
  info.suite = plugin.info;
  return info;
}

}  // namespace Rendering
