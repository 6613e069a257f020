// Builds a renderer plug-in suite from a C++ class, so that an author writes
// member functions instead of sixteen C entry points.
//
//   class MyRenderer : public Rendering::XoRendererPluginBase {
//    public:
//     MyRenderer(XoSgIteratorStruct* iterator, XoAttributeStruct* arguments);
//     int32_t start();   // hide only the slots you need
//   };
//   XO_DEFINE_RENDERER_PLUGIN("myRenderer",
//                             Rendering::XoRendererPluginSuiteFor<MyRenderer>(), NULL)
//
// Slot 0 runs `new T(iterator, arguments)`, slot 1 `delete`. An exception never
// crosses the C boundary: it is printed on standard error and the slot returns
// -1 (create returns NULL, which the manager reports as a failed creation).
#pragma once

#include <cstdint>
#include <cstdio>
#include <exception>

#include "XoRendererPlugin/XoRendererPluginDefine.h"

namespace Rendering {

// Defaults for every slot: do nothing, succeed, hold no queued updates.
// Calls are resolved statically, so a derived class hides these by name.
class XoRendererPluginBase {
 public:
  int32_t start() { return 0; }
  int32_t pauseRerender() { return 0; }
  int32_t stop() { return 0; }
  int32_t startLiveEditing() { return 0; }
  int32_t stopLiveEditing() { return 0; }
  int32_t handleControlCommand(const char* /*command*/) { return 0; }
  int32_t submitUpdate(XoAttributeStruct* /*update*/) { return 0; }
  bool hasQueuedUpdates() { return false; }
  int32_t applyQueuedUpdates() { return 0; }
  int32_t setSceneIterator(XoSgIteratorStruct* /*iterator*/) { return 0; }
  int32_t setup() { return 0; }
  int32_t teardown() { return 0; }
};

namespace detail {

template <typename F>
int32_t guarded(const char* slot, F&& call) {
  try {
    return call();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "renderer plug-in: %s failed: %s\n", slot, e.what());
  } catch (...) {
    std::fprintf(stderr, "renderer plug-in: %s failed\n", slot);
  }
  return -1;
}

template <typename T>
struct SuiteFor {
  static T* self(XoRendererPluginHandle h) { return static_cast<T*>(h); }

  static XoRendererPluginHandle create(XoSgIteratorStruct* it, XoAttributeStruct* args) {
    T* instance = nullptr;
    guarded("create", [&] {
      instance = new T(it, args);
      return 0;
    });
    return instance;
  }
  static void destroy(XoRendererPluginHandle h) {
    guarded("destroy", [&] {
      delete self(h);
      return 0;
    });
  }
  static int32_t start(XoRendererPluginHandle h) {
    return guarded("start", [&] { return self(h)->start(); });
  }
  static int32_t pauseRerender(XoRendererPluginHandle h) {
    return guarded("pauseRerender", [&] { return self(h)->pauseRerender(); });
  }
  static int32_t stop(XoRendererPluginHandle h) {
    return guarded("stop", [&] { return self(h)->stop(); });
  }
  static int32_t startLiveEditing(XoRendererPluginHandle h) {
    return guarded("startLiveEditing", [&] { return self(h)->startLiveEditing(); });
  }
  static int32_t stopLiveEditing(XoRendererPluginHandle h) {
    return guarded("stopLiveEditing", [&] { return self(h)->stopLiveEditing(); });
  }
  static int32_t handleControlCommand(XoRendererPluginHandle h, const char* command) {
    return guarded("handleControlCommand",
                   [&] { return self(h)->handleControlCommand(command); });
  }
  static int32_t submitUpdate(XoRendererPluginHandle h, XoAttributeStruct* update) {
    return guarded("submitUpdate", [&] { return self(h)->submitUpdate(update); });
  }
  static int32_t hasQueuedUpdates(XoRendererPluginHandle h) {
    // A failure answers false: nothing to apply.
    int32_t r = guarded("hasQueuedUpdates",
                        [&] { return self(h)->hasQueuedUpdates() ? 1 : 0; });
    return r == 1 ? 1 : 0;
  }
  static int32_t applyQueuedUpdates(XoRendererPluginHandle h) {
    return guarded("applyQueuedUpdates", [&] { return self(h)->applyQueuedUpdates(); });
  }
  static int32_t setSceneIterator(XoRendererPluginHandle h, XoSgIteratorStruct* it) {
    return guarded("setSceneIterator", [&] { return self(h)->setSceneIterator(it); });
  }
  static int32_t setup(XoRendererPluginHandle h) {
    return guarded("setup", [&] { return self(h)->setup(); });
  }
  static int32_t teardown(XoRendererPluginHandle h) {
    return guarded("teardown", [&] { return self(h)->teardown(); });
  }

  static constexpr XoRendererPluginSuite suite = {
      &create,           &destroy,          &start,
      &pauseRerender,    nullptr,           &stop,
      &startLiveEditing, &stopLiveEditing,  &handleControlCommand,
      &submitUpdate,     &hasQueuedUpdates, &applyQueuedUpdates,
      nullptr,           &setSceneIterator, &setup,
      &teardown};
};

}  // namespace detail

// The suite of T, with static storage.
template <typename T>
constexpr const XoRendererPluginSuite* XoRendererPluginSuiteFor() {
  return &detail::SuiteFor<T>::suite;
}

}  // namespace Rendering
