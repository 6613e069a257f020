// Test library with several registrations: a working renderer that writes its
// creation and destruction to a file, two broken ones, and a name that an
// earlier library already registers.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "XoRendererPlugin/XoRendererPluginClass.h"

namespace {

std::string argument(XoAttributeStruct* arguments, const char* name) {
  const char* value = XoAttributeGetStringValue(XoAttributeGetChildByName(arguments, name), 0);
  return value ? value : "";
}

void appendLine(const std::string& path, const std::string& line) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string text = line + "\n";
  ssize_t written = ::write(fd, text.data(), text.size());
  (void)written;
  ::close(fd);
}

class Trace : public Rendering::XoRendererPluginBase {
 public:
  Trace(XoSgIteratorStruct*, XoAttributeStruct* arguments)
      : log_(argument(arguments, "log")), id_(argument(arguments, "id")) {
    appendLine(log_, "create " + id_);
  }
  ~Trace() { appendLine(log_, "destroy " + id_); }
  int32_t setup() { return 42; }

 private:
  std::string log_;
  std::string id_;
};

XoRendererPluginHandle createNothing(XoSgIteratorStruct*, XoAttributeStruct*) { return nullptr; }

XoRendererPluginSuite failingCreate() {
  XoRendererPluginSuite suite = {};
  suite.create = createNothing;
  return suite;
}

const XoRendererPluginSuite kFailingCreate = failingCreate();
const XoRendererPluginSuite kNoCreate = {};

const char* traceName() { return "Trace Renderer"; }
const XoRendererInfoPluginSuite kTraceInfo = {traceName, nullptr};

const XoRendererPluginRegistration kRegistrations[] = {
    {XO_RENDERER_PLUGIN_API_VERSION, "alpha", Rendering::XoRendererPluginSuiteFor<Trace>(),
     &kTraceInfo},
    {XO_RENDERER_PLUGIN_API_VERSION, "beta", &kFailingCreate, nullptr},
    {XO_RENDERER_PLUGIN_API_VERSION, "gamma", &kNoCreate, nullptr},
    {XO_RENDERER_PLUGIN_API_VERSION, "recording", &kNoCreate, nullptr},
};

}  // namespace

extern "C" XO_PLUGIN_EXPORT int XoPluginRegistrationCount(void) {
  return sizeof kRegistrations / sizeof kRegistrations[0];
}

extern "C" XO_PLUGIN_EXPORT const XoRendererPluginRegistration* XoPluginRegistrationAt(int index) {
  return index >= 0 && index < XoPluginRegistrationCount() ? &kRegistrations[index] : nullptr;
}
