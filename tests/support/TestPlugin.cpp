#include "TestPlugin.h"

#include <cstring>

using Arbolite3::internal::XoAttribute::Attribute;

TestPlugin::TestPlugin() {
  std::memset(&table, 0, sizeof table);
  table.start = start;
  table.pauseRerender = pauseRerender;
  table.stop = stop;
  table.startLiveEditing = startLiveEditing;
  table.stopLiveEditing = stopLiveEditing;
  table.handleControlCommand = handleControlCommand;
  table.submitUpdate = submitUpdate;
  table.hasQueuedUpdates = hasQueuedUpdates;
  table.applyQueuedUpdates = applyQueuedUpdates;
  table.setup = setup;
  table.teardown = teardown;
}

void TestPlugin::reset() {
  std::lock_guard<std::mutex> lock(mutex);
  log.clear();
  submitted.clear();
  handles.clear();
  pending = 0;
}

void TestPlugin::record(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex);
  log.push_back(line);
  changed.notify_all();
}

std::vector<std::string> TestPlugin::calls() const {
  std::lock_guard<std::mutex> lock(mutex);
  return log;
}

namespace {

bool isCallOf(const std::string& call, const std::string& slot) {
  return call.compare(0, slot.size(), slot) == 0 &&
         (call.size() == slot.size() || call[slot.size()] == ' ');
}

}  // namespace

std::vector<std::string> TestPlugin::callsOf(const std::string& slot) const {
  std::vector<std::string> result;
  for (const std::string& call : calls())
    if (isCallOf(call, slot)) result.push_back(call);
  return result;
}

std::vector<Attribute> TestPlugin::updates() const {
  std::lock_guard<std::mutex> lock(mutex);
  return submitted;
}

std::vector<XoAttributeStruct*> TestPlugin::submittedHandles() const {
  std::lock_guard<std::mutex> lock(mutex);
  return handles;
}

bool TestPlugin::waitUntil(const std::function<bool(const std::vector<std::string>&)>& done,
                           std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_for(lock, limit, [&] { return done(log); });
}

bool TestPlugin::waitForCount(const std::string& slot, size_t n,
                              std::chrono::milliseconds limit) const {
  return waitUntil([&](const std::vector<std::string>& calls) {
    size_t found = 0;
    for (const std::string& call : calls) found += isCallOf(call, slot);
    return found >= n;
  }, limit);
}

void TestPlugin::holdApply() {
  std::lock_guard<std::mutex> lock(mutex);
  applyHeld = true;
}

void TestPlugin::releaseApply() {
  std::lock_guard<std::mutex> lock(mutex);
  applyHeld = false;
  changed.notify_all();
}

int32_t TestPlugin::start(XoRendererPluginHandle h) { return self(h).record("start"), 0; }
int32_t TestPlugin::pauseRerender(XoRendererPluginHandle h) {
  return self(h).record("pauseRerender"), 0;
}
int32_t TestPlugin::stop(XoRendererPluginHandle h) { return self(h).record("stop"), 0; }
int32_t TestPlugin::startLiveEditing(XoRendererPluginHandle h) {
  TestPlugin& plugin = self(h);
  plugin.record("startLiveEditing");
  if (plugin.onStartLiveEditing) plugin.onStartLiveEditing();
  return 0;
}
int32_t TestPlugin::stopLiveEditing(XoRendererPluginHandle h) {
  return self(h).record("stopLiveEditing"), 0;
}

int32_t TestPlugin::handleControlCommand(XoRendererPluginHandle h, const char* command) {
  TestPlugin& plugin = self(h);
  // A record of 256 bytes has no terminator: never read past it.
  plugin.record("handleControlCommand " + std::string(command, strnlen(command, 256)));
  return 0;
}

int32_t TestPlugin::submitUpdate(XoRendererPluginHandle h, XoAttributeStruct* update) {
  TestPlugin& plugin = self(h);
  if (plugin.onSubmit) plugin.onSubmit();
  Attribute kept = Attribute::fromHandle(update);
  std::lock_guard<std::mutex> lock(plugin.mutex);
  plugin.log.push_back(plugin.describeUpdates ? "submitUpdate " + kept.getXML() : "submitUpdate");
  plugin.submitted.push_back(kept);
  plugin.handles.push_back(update);
  ++plugin.pending;
  plugin.changed.notify_all();
  return 0;
}

int32_t TestPlugin::hasQueuedUpdates(XoRendererPluginHandle h) {
  TestPlugin& plugin = self(h);
  std::lock_guard<std::mutex> lock(plugin.mutex);
  if (plugin.recordQueries) {
    plugin.log.push_back(plugin.pending > 0 ? "hasQueuedUpdates 1" : "hasQueuedUpdates 0");
    plugin.changed.notify_all();
  }
  // Only the low byte counts: the high bits must not make "none" look true.
  return plugin.pending > 0 ? 0x101 : 0x100;
}

int32_t TestPlugin::applyQueuedUpdates(XoRendererPluginHandle h) {
  TestPlugin& plugin = self(h);
  std::unique_lock<std::mutex> lock(plugin.mutex);
  plugin.log.push_back("applyQueuedUpdates " + std::to_string(plugin.pending));
  plugin.pending = 0;
  plugin.changed.notify_all();
  plugin.changed.wait(lock, [&] { return !plugin.applyHeld; });
  return 0;
}

int32_t TestPlugin::setup(XoRendererPluginHandle h) {
  TestPlugin& plugin = self(h);
  plugin.record("setup");
  return plugin.setupResult;
}

int32_t TestPlugin::teardown(XoRendererPluginHandle h) { return self(h).record("teardown"), 0; }
