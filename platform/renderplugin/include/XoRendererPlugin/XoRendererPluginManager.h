// Finding renderer plug-ins by registered name and making instances of them.
// Libraries are discovered in <SELVANE_ROOT>/plugins/Libs and in the
// colon-separated directories of the configuration key SELVANE_RENDERER_PLUGIN_PATH.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "XoRendererPlugin/XoRendererPluginRegistration.h"

namespace Arbolite3 {
namespace internal {
namespace XoRendererInfo {

// A renderer's info plug-in; invalid when the renderer registered none.
struct XoRendererInfoPlugin {
  std::string registeredName;
  const XoRendererInfoPluginSuite* suite = nullptr;
  bool isValid() const { return suite != nullptr; }
};

}  // namespace XoRendererInfo
}  // namespace internal
}  // namespace Arbolite3

namespace Rendering {

class RendererPluginError : public std::runtime_error {
 public:
  explicit RendererPluginError(const std::string& what) : std::runtime_error(what) {}
};

// Two words: the suite, then the instance. Destroying this record does not
// destroy the instance: the manager does that when the scene library is
// uninitialised.
struct XoRendererPlugin {
  XoRendererPluginSuite* suite = nullptr;
  XoRendererPluginHandle handle = nullptr;
};

class XoRendererPluginManager {
 public:
  // Loads (once) the libraries, finds `name` and creates an instance with the
  // given iterator and arguments. Throws RendererPluginError with a message
  // naming `name` when no library registers it or creation fails.
  static XoRendererPlugin getRendererPlugin(const std::string& name,
                                            XoSgIteratorStruct* iterator,
                                            XoAttributeStruct* arguments);
  // Destroys every instance made so far (newest first). Runs when the scene
  // library is uninitialised.
  static void destroyInstances();
  // Registered names of every plug-in found, in discovery order.
  static std::vector<std::string> getRegisteredNames();
};

class XoRendererInfoPluginManager {
 public:
  // The info plug-in of a registered renderer; throws RendererPluginError
  // when the name is not registered. A renderer without an info plug-in gives
  // an invalid record.
  static Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin
  getRendererInfoPluginByRegisteredName(const std::string& name);
};

}  // namespace Rendering
