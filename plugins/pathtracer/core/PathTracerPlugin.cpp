// The plug-in table of the path tracer. The thin library registered in
// plugins/Libs loads this one on the first `create` and forwards every slot.
#include <cstring>
#include <sstream>

#include "AttributeValues.h"
#include "Log.h"
#include "Renderer.h"
#include "XoRendererPlugin/XoRendererPluginClass.h"

namespace pathtracer {

using Arbolite3::internal::XoScenegraphIterator;

namespace {

RendererOptions optionsFrom(const GroupAttribute& arguments) {
  RendererOptions options;
  options.threads = std::atoi(text(arguments.getChildByName("threads"), "0").c_str());
  options.samples = std::atoi(text(arguments.getChildByName("samples"), "0").c_str());
  options.output = text(arguments.getChildByName("outputImage"));
  options.sampleOffset = std::atoi(text(arguments.getChildByName("sampleOffset"), "0").c_str());
  options.sampleStride = std::atoi(text(arguments.getChildByName("sampleStride"), "1").c_str());
  return options;
}

}  // namespace

class PathTracerPlugin : public Rendering::XoRendererPluginBase {
 public:
  PathTracerPlugin(XoSgIteratorStruct* scene, XoAttributeStruct* arguments)
      : iterator(XoScenegraphIterator::fromHandle(scene)),
        live(text(GroupAttribute(Attribute::fromHandle(arguments))
                      .getChildByName("renderMethodType")) == "liveRender"),
        optionError(shareError(optionsFrom(GroupAttribute(Attribute::fromHandle(arguments))))),
        renderer(optionsFrom(GroupAttribute(Attribute::fromHandle(arguments)))) {}

  int32_t setSceneIterator(XoSgIteratorStruct* scene) {
    iterator = XoScenegraphIterator::fromHandle(scene);
    return 0;
  }

  // A batch render is over when this returns; a live one only loads here.
  int32_t start() {
    if (!iterator.isValid()) {
      PT_ERROR("No scene to render");
      return -1;
    }
    if (!optionError.empty()) {
      PT_ERROR(optionError);
      return -1;
    }
    // Reported on our channel rather than left to kindlet's catch-all.
    try {
      renderer.load(SceneTree::fromIterator(iterator));
      if (live) return 0;
      return renderer.renderBatch() ? 0 : -1;
    } catch (const std::bad_alloc&) {
      PT_ERROR("Out of memory while loading or rendering the scene");
    } catch (const std::exception& e) {
      PT_ERROR("Render failed: " << e.what());
    }
    return -1;
  }

  int32_t startLiveEditing() {
    renderer.startLive();
    return 0;
  }
  int32_t stopLiveEditing() {
    renderer.stopLive();
    return 0;
  }
  int32_t stop() {
    renderer.stopLive();
    return 0;
  }
  int32_t teardown() {
    renderer.stopLive();
    return 0;
  }

  int32_t submitUpdate(XoAttributeStruct* update) {
    const GroupAttribute group(Attribute::fromHandle(update));
    if (!group.isValid()) {
      PT_ERROR("Update ignored: not a group attribute");
      return -1;
    }
    renderer.submitUpdate(group);
    return 0;
  }
  bool hasQueuedUpdates() { return renderer.hasQueuedUpdates(); }
  int32_t applyQueuedUpdates() {
    try {
      renderer.applyQueuedUpdates();
      return 0;
    } catch (const std::bad_alloc&) {
      PT_ERROR("Out of memory while applying updates");
    }
    return -1;
  }
  int32_t handleControlCommand(const char* command) {
    const std::string text(command, strnlen(command, 256));
    if (text == "pauseRefinement" || text == "resumeRefinement") {
      renderer.holdRefinement(text == "pauseRefinement");
      return 0;
    }
    PT_WARN("Unknown control command \"" << std::string(command, strnlen(command, 256))
                                         << "\" ignored");
    return 0;
  }

 private:
  XoScenegraphIterator iterator;
  const bool live;
  const std::string optionError;  // of the options; start() fails with it
  Renderer renderer;  // last: its threads stop before the rest goes
};

}  // namespace pathtracer

extern "C" XO_PLUGIN_EXPORT const XoRendererPluginSuite* KindletPathTracerSuite(void) {
  return Rendering::XoRendererPluginSuiteFor<pathtracer::PathTracerPlugin>();
}
