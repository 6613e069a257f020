// An in-process renderer plug-in for driving Rendering::Manager directly: it
// records every call, keeps a real queue behind submitUpdate, and lets a test
// hold applyQueuedUpdates or startLiveEditing until it says go.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "XoAttribute/Attribute.h"
#include "XoRendererPlugin/XoRendererPluginSuite.h"

class TestPlugin {
 public:
  TestPlugin();

  XoRendererPluginSuite* suite() { return &table; }
  XoRendererPluginHandle handle() { return this; }

  // "<slot>" or "<slot> <detail>": applyQueuedUpdates gives the count it
  // took, handleControlCommand the text (at most 256 bytes).
  std::vector<std::string> calls() const;
  std::vector<std::string> callsOf(const std::string& slot) const;
  size_t count(const std::string& slot) const { return callsOf(slot).size(); }
  // The updates as submitted, in order.
  std::vector<Arbolite3::internal::XoAttribute::Attribute> updates() const;
  std::vector<XoAttributeStruct*> submittedHandles() const;

  // Waits until `done` holds over the calls; false on time-out.
  bool waitUntil(const std::function<bool(const std::vector<std::string>&)>& done,
                 std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
  bool waitForCount(const std::string& slot, size_t n,
                    std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

  // While held, applyQueuedUpdates waits after taking the queue.
  void holdApply();
  void releaseApply();
  // Runs inside startLiveEditing, before it returns.
  std::function<void()> onStartLiveEditing;
  // Runs inside submitUpdate, before the update is recorded.
  std::function<void()> onSubmit;
  int32_t setupResult = 0;
  // hasQueuedUpdates is recorded too ("hasQueuedUpdates 0" or "... 1").
  bool recordQueries = true;
  // submitUpdate is recorded with the update's XML ("submitUpdate <xml>").
  bool describeUpdates = false;

  // Forgets the calls and updates so far.
  void reset();

 private:
  static TestPlugin& self(XoRendererPluginHandle handle) {
    return *static_cast<TestPlugin*>(handle);
  }
  void record(const std::string& line);

  static int32_t start(XoRendererPluginHandle);
  static int32_t pauseRerender(XoRendererPluginHandle);
  static int32_t stop(XoRendererPluginHandle);
  static int32_t startLiveEditing(XoRendererPluginHandle);
  static int32_t stopLiveEditing(XoRendererPluginHandle);
  static int32_t handleControlCommand(XoRendererPluginHandle, const char* command);
  static int32_t submitUpdate(XoRendererPluginHandle, XoAttributeStruct* update);
  static int32_t hasQueuedUpdates(XoRendererPluginHandle);
  static int32_t applyQueuedUpdates(XoRendererPluginHandle);
  static int32_t setup(XoRendererPluginHandle);
  static int32_t teardown(XoRendererPluginHandle);

  XoRendererPluginSuite table;
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<std::string> log;
  std::vector<Arbolite3::internal::XoAttribute::Attribute> submitted;
  std::vector<XoAttributeStruct*> handles;
  size_t pending = 0;
  bool applyHeld = false;
};
