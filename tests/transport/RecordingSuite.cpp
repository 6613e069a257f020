#include "RecordingSuite.h"

#include <condition_variable>
#include <mutex>

#include "XoAttribute/Attribute.h"

namespace recording {

namespace {

std::mutex mutex;
std::condition_variable changed;
std::vector<std::string> log;
int pending = 0;

void record(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex);
  log.push_back(line);
  changed.notify_all();
}

int32_t start(XoRendererPluginHandle) { return record("start"), 0; }
int32_t pauseRerender(XoRendererPluginHandle) { return record("pauseRerender"), 0; }
int32_t stop(XoRendererPluginHandle) { return record("stop"), 0; }
int32_t startLiveEditing(XoRendererPluginHandle) { return record("startLiveEditing"), 0; }
int32_t stopLiveEditing(XoRendererPluginHandle) { return record("stopLiveEditing"), 0; }
int32_t handleControlCommand(XoRendererPluginHandle, const char* command) {
  return record(std::string("handleControlCommand ") + command), 0;
}
int32_t submitUpdate(XoRendererPluginHandle, XoAttributeStruct* update) {
  const std::string xml = Arbolite3::internal::XoAttribute::Attribute::fromHandle(update).getXML();
  std::lock_guard<std::mutex> lock(mutex);
  log.push_back("submitUpdate " + xml);
  ++pending;
  changed.notify_all();
  return 0;
}
int32_t hasQueuedUpdates(XoRendererPluginHandle) {
  std::lock_guard<std::mutex> lock(mutex);
  return pending > 0;
}
int32_t applyQueuedUpdates(XoRendererPluginHandle) {
  std::lock_guard<std::mutex> lock(mutex);
  log.push_back("applyQueuedUpdates " + std::to_string(pending));
  pending = 0;
  changed.notify_all();
  return 0;
}
int32_t setup(XoRendererPluginHandle) { return record("setup"), 0; }
int32_t teardown(XoRendererPluginHandle) { return record("teardown"), 0; }

XoRendererPluginSuite table = {
    nullptr,          nullptr, start,        pauseRerender,       nullptr,
    stop,             startLiveEditing,      stopLiveEditing,     handleControlCommand,
    submitUpdate,     hasQueuedUpdates,      applyQueuedUpdates,  nullptr,
    nullptr,          setup,                 teardown,
};

}  // namespace

XoRendererPluginSuite* suite() { return &table; }

XoRendererPluginHandle handle() { return &table; }

void reset() {
  std::lock_guard<std::mutex> lock(mutex);
  log.clear();
  pending = 0;
}

std::vector<std::string> calls() {
  std::lock_guard<std::mutex> lock(mutex);
  return log;
}

bool waitFor(const std::function<bool(const std::vector<std::string>&)>& done,
             std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_for(lock, limit, [&] { return done(log); });
}

std::vector<std::string> callsOf(const std::string& slot) {
  std::vector<std::string> result;
  for (const std::string& call : calls())
    if (call.compare(0, slot.size(), slot) == 0 &&
        (call.size() == slot.size() || call[slot.size()] == ' '))
      result.push_back(call);
  return result;
}

}  // namespace recording
