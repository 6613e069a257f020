// Rendering::Manager drives one renderer plug-in through its renders: start
// to stop for a batch render, and for a live render the live-render loop,
// while updates and control commands reach the plug-in from other threads.
// It holds no scene data and no queue: the queue of a live render is the
// plug-in's.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>

#include "KINDLET/src/ControlCommandRecord.h"
#include "XoAttribute/Attribute.h"
#include "XoRendererPlugin/XoRendererPluginSuite.h"

namespace Rendering {

class Manager {
 public:
  Manager(XoRendererPluginHandle pluginHandle, XoRendererPluginSuite* pluginSuite,
          const std::string& host, uint16_t portControl, uint16_t portData,
          long sequenceID);
  virtual ~Manager();
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  // Main thread only. -1 without a plug-in, else the plug-in's result.
  int32_t setup();
  // Main thread only; once per Op tree file. Returns when the render is done,
  // or, for "liveRender", when a "stopLiveEditing" command has ended the loop.
  int32_t render(const std::string& renderMethodType);

  // Any thread, at any time, no lock: each hands its input straight to the
  // plug-in and then wakes the live-render loop.
  void processLiveRenderData(const char* data, size_t length);
  void processLiveRenderUpdate(const Arbolite3::internal::XoAttribute::GroupAttribute& update);
  void processControlCommand(const std::string& command);
  void processControlCommand(ControlCommandRecord record);

  const std::string& getSequenceID() const { return sequenceID; }

  // The deleter of the entry function's shared_ptr. A Manager whose render
  // opened TCP channels cannot be freed: their detached reader threads hold a
  // plain pointer to it until the process ends. Such a Manager calls
  // teardown as its destructor would, stops forwarding to the plug-in, and
  // stays in memory; any other Manager is deleted.
  static void release(Manager* manager);

 private:
  // `seen` is the delivery count the loop has already answered.
  void runLiveRenderLoop(uint64_t seen);
  void wake();

  XoRendererPluginHandle pluginHandle;
  XoRendererPluginSuite* pluginSuite;
  std::atomic<int32_t> liveRenderState{0};  // 0 none yet, 1 loop runs, 2 stop requested
  std::string host;
  uint16_t portControl;
  uint16_t portData;
  std::string sequenceID;
  std::ofstream updateDebugFile;
  std::condition_variable wakeCondition;
  std::mutex wakeMutex;  // guards the hand-over of `deliveries` to the loop's wait
  // Deliveries that woke the loop so far. The loop sleeps only while it has
  // seen them all, so a wake-up that found it busy in the plug-in is not lost.
  uint64_t deliveries = 0;
  std::atomic<bool> readersAttached{false};
  std::atomic<bool> pluginReleased{false};  // teardown done: deliveries are dropped
  // Deliveries inside the plug-in right now; release() waits for them to
  // leave before teardown, so none is still in the plug-in when it goes.
  std::atomic<int> deliveriesInPlugin{0};

  friend class DeliveryPass;
};

}  // namespace Rendering
