#include "RecordingSuite.h"

#include "TestPlugin.h"

namespace recording {

namespace {

// One plug-in for the whole program, recording updates by their XML and not
// its loop's questions.
TestPlugin& plugin() {
  static TestPlugin* instance = [] {
    TestPlugin* made = new TestPlugin;
    made->recordQueries = false;
    made->describeUpdates = true;
    return made;
  }();
  return *instance;
}

}  // namespace

XoRendererPluginSuite* suite() { return plugin().suite(); }
XoRendererPluginHandle handle() { return plugin().handle(); }
void reset() { plugin().reset(); }
std::vector<std::string> calls() { return plugin().calls(); }
std::vector<std::string> callsOf(const std::string& slot) { return plugin().callsOf(slot); }
bool waitFor(const std::function<bool(const std::vector<std::string>&)>& done,
             std::chrono::milliseconds limit) {
  return plugin().waitUntil(done, limit);
}

}  // namespace recording
