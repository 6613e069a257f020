// A renderer that keeps its updates in a queue and answers in its results, so
// that a test can drive it through the suite alone.
#include <mutex>
#include <vector>

#include "XoAttribute/Attribute.h"
#include "XoRendererPlugin/XoRendererPluginClass.h"

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::IntAttribute;

class SdkExample : public Rendering::XoRendererPluginBase {
 public:
  SdkExample(XoSgIteratorStruct*, XoAttributeStruct* arguments)
      : arguments_(Attribute::fromHandle(arguments)) {}

  // Number of arguments: proves the group arrived and the C++ classes work.
  int32_t setup() { return static_cast<int32_t>(arguments_.getNumberOfChildren()); }

  int32_t submitUpdate(XoAttributeStruct* update) {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(GroupAttribute(Attribute::fromHandle(update)));
    return 0;
  }
  bool hasQueuedUpdates() {
    std::lock_guard<std::mutex> lock(mutex_);
    return !queue_.empty();
  }
  // Sum of the "value" children of the applied updates.
  int32_t applyQueuedUpdates() {
    std::vector<GroupAttribute> batch;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      batch.swap(queue_);
    }
    int32_t sum = 0;
    for (const GroupAttribute& update : batch)
      sum += IntAttribute(update.getChildByName("value")).getValue(0);
    return sum;
  }

 private:
  GroupAttribute arguments_;
  std::mutex mutex_;
  std::vector<GroupAttribute> queue_;
};

static const char* rendererName() { return "SDK Example"; }
static const XoRendererInfoPluginSuite info = {rendererName, nullptr};

XO_DEFINE_RENDERER_PLUGIN("sdkexample", Rendering::XoRendererPluginSuiteFor<SdkExample>(), &info)
