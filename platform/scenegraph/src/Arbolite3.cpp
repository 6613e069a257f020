#include "XoScenegraph/XoArbolite3.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>

#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"

namespace {

enum class Stage { Down, Minimal, Full };

struct State {
  std::mutex mutex;
  Stage stage = Stage::Down;
  std::vector<std::pair<void (*)(void*), void*>> hooks;
};

State& state() {
  // Never destroyed: hooks may be added or run from static destructors.
  static State* s = new State();
  return *s;
}

const XoLoggingHost::XoLoggerGlue& logger() {
  static const XoLoggingHost::XoLoggerGlue channel("Arbolite3");
  return channel;
}

void logError(const std::string& text) {
  if (logger().errorEnabled()) logger().error(text, __FILE__, __LINE__);
}

// Reads the directory through once, as the plug-in manager will.
bool canScan(const std::string& dir, const char* origin) {
  DIR* handle = ::opendir(dir.c_str());
  if (handle == nullptr) {
    const int error = errno;
    logError("Cannot scan plug-in directory \"" + dir + "\" (from " + origin + "): " +
             (error == ENOENT ? std::string("it does not exist") : std::strerror(error)));
    return false;
  }
  errno = 0;
  while (::readdir(handle) != nullptr) {
  }
  const int error = errno;
  ::closedir(handle);
  if (error != 0) {
    logError("Cannot scan plug-in directory \"" + dir + "\" (from " + origin +
             "): " + std::strerror(error));
    return false;
  }
  return true;
}

// The directories the renderer plug-in manager will search.
bool pluginDirectoriesScannable() {
  auto& config = Arbolite3::XoConfiguration::v1::Config();
  bool ok = true;
  const std::string root = config.get("SELVANE_ROOT");
  if (!root.empty()) ok = canScan(root + "/plugins/Libs", "SELVANE_ROOT") && ok;
  const std::string list = config.get("SELVANE_RENDERER_PLUGIN_PATH");
  size_t start = 0;
  while (start <= list.size() && !list.empty()) {
    size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    // Empty entries ("a::b", a trailing ':') name nothing.
    if (end > start) ok = canScan(list.substr(start, end - start), "SELVANE_RENDERER_PLUGIN_PATH") && ok;
    start = end + 1;
  }
  return ok;
}

}  // namespace

extern "C" {

int XoArbolite3InitializeMinimally(int /*flags*/) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.stage == Stage::Down) s.stage = Stage::Minimal;
  return 0;
}

int XoArbolite3Initialize(int /*flags*/) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  switch (s.stage) {
    case Stage::Down:
      logError("XoArbolite3Initialize called before XoArbolite3InitializeMinimally");
      return 1;
    case Stage::Full:
      return 0;
    case Stage::Minimal:
      break;
  }
  if (!pluginDirectoriesScannable()) return 2;
  s.stage = Stage::Full;
  return 0;
}

void XoArbolite3Uninitialize() {
  State& s = state();
  std::vector<std::pair<void (*)(void*), void*>> hooks;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.stage = Stage::Down;
    hooks.swap(s.hooks);
  }
  // Outside the lock: a hook may register a new hook or initialise again.
  for (auto it = hooks.rbegin(); it != hooks.rend(); ++it) it->first(it->second);
}

void XoArbolite3AddUninitializeHook(void (*hook)(void* arg), void* arg) {
  if (hook == nullptr) return;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.hooks.emplace_back(hook, arg);
}

}  // extern "C"
