// Rendering::Manager::render on a thread of its own, for tests that link the
// render driver. A stop is repeated until the render returns: one that lands
// before the loop has begun is overwritten.
#pragma once

#include <chrono>
#include <future>
#include <string>

#include "KINDLET/src/RenderManager.h"

class LiveRender {
 public:
  explicit LiveRender(Rendering::Manager& manager, const std::string& method = "liveRender")
      : manager(manager),
        result(std::async(std::launch::async, [&manager, method] { return manager.render(method); })) {}
  ~LiveRender() {
    if (result.valid()) stop();
  }
  bool returned(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    return result.wait_for(limit) == std::future_status::ready;
  }
  int32_t stop() {
    while (!returned(std::chrono::milliseconds(20)))
      manager.processControlCommand(std::string("stopLiveEditing"));
    return result.get();
  }

 private:
  Rendering::Manager& manager;
  std::future<int32_t> result;
};
