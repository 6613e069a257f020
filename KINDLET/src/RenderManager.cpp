#include "KINDLET/src/RenderManager.h"

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <thread>

#include "KINDLET/src/KindletLog.h"
#include "KINDLET/src/RerenderControl/RerenderIPC.h"
#include "LiveRendering/PerRenderUpdate.h"
#include "XoConfiguration/Configuration.h"

namespace Rendering {

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::kTypeGroup;

namespace {

const char kSource[] = "KINDLET/src/RenderManager";

std::string configValue(const char* key) {
  return Arbolite3::XoConfiguration::v1::Config().get(key);
}

void logDebug(const char* text, int line) {
  if (kindletLog().debugEnabled()) kindletLog().debug(text, kSource, line);
}

// Calls a slot if the plug-in filled it; an empty slot acts as a no-op.
#define CALL_SLOT(slot, ...) \
  (pluginSuite->slot != nullptr ? pluginSuite->slot(pluginHandle, ##__VA_ARGS__) : 0)

}  // namespace

// Lets a delivery into the plug-in unless the plug-in was released. The
// count goes up before the flag is read and release() sets the flag before
// it reads the count, so either the delivery sees the flag or release()
// waits for the delivery to leave. A delivery never waits.
class DeliveryPass {
 public:
  explicit DeliveryPass(Manager& manager) : manager(manager) {
    manager.deliveriesInPlugin.fetch_add(1);
    open = !manager.pluginReleased.load();
  }
  ~DeliveryPass() { manager.deliveriesInPlugin.fetch_sub(1); }
  explicit operator bool() const { return open; }

 private:
  Manager& manager;
  bool open;
};

Manager::Manager(XoRendererPluginHandle pluginHandle_, XoRendererPluginSuite* pluginSuite_,
                 const std::string& host_, uint16_t portControl_, uint16_t portData_,
                 long sequenceID_)
    : pluginHandle(pluginHandle_),
      pluginSuite(pluginSuite_),
      host(host_),
      portControl(portControl_),
      portData(portData_) {
  char text[32];
  snprintf(text, sizeof text, "%ld", sequenceID_);
  sequenceID = text;

  if (configValue("SELVANE_DISABLE_PREVANE_PLUS") == "1" &&
      Arbolite3::XoConfiguration::v1::Config().has("SELVANE_LRUA_DEBUG") &&
      kindletLog().warnEnabled()) {
    kindletLog().warn(
        "Live render update attribute debugging (SELVANE_LRUA_DEBUG) only available in Prevane+",
        kSource, __LINE__);
  }
  // The warning warns and nothing more: a set key opens the file either way.
  std::string debugPath = configValue("SELVANE_LRUA_DEBUG");
  if (!debugPath.empty()) updateDebugFile.open(debugPath, std::ios::out | std::ios::trunc);
}

Manager::~Manager() {
  if (!pluginReleased.load() && pluginSuite != nullptr && pluginHandle != nullptr)
    CALL_SLOT(teardown);
}

void Manager::release(Manager* manager) {
  if (!manager->readersAttached.load()) {
    delete manager;
    return;
  }
  manager->pluginReleased.store(true);
  while (manager->deliveriesInPlugin.load() != 0) std::this_thread::yield();
  if (manager->pluginSuite != nullptr && manager->pluginHandle != nullptr) {
    XoRendererPluginSuite* pluginSuite = manager->pluginSuite;
    XoRendererPluginHandle pluginHandle = manager->pluginHandle;
    CALL_SLOT(teardown);
  }
}

int32_t Manager::setup() {
  if (pluginSuite == nullptr || pluginHandle == nullptr) return -1;
  return CALL_SLOT(setup);
}

int32_t Manager::render(const std::string& renderMethodType) {
  // Their sockets and read callbacks are never closed or freed: the reader
  // threads need them until the process ends, also after this render returned.
  RerenderIPC controlChannel;
  RerenderIPC dataChannel;

  if (pluginHandle == nullptr) {
    if (kindletLog().errorEnabled())
      kindletLog().error("Rendering::Manager::render(): No render plug-in handle set.", kSource, __LINE__);
    return 1;
  }
  if (pluginSuite == nullptr) {
    if (kindletLog().errorEnabled())
      kindletLog().error("Rendering::Manager::render(): No render plug-in suite set.", kSource, __LINE__);
    return 1;
  }

  const bool channelsWanted = configValue("SELVANE_DISABLE_PREVANE_PLUS") == "1" &&
                              !host.empty() && portControl != 0 && portData != 0;
  if (channelsWanted) {
    readersAttached.store(true);
    // A channel that fails prints its own line; the render goes on without it.
    controlChannel.connectControl(this, host, portControl);
    dataChannel.connectData(this, host, portData);
  }

  logDebug("Calling renderPlugin.start()...", __LINE__);
  CALL_SLOT(start);
  logDebug("Call of renderPlugin.start() returned.", __LINE__);

  if (renderMethodType == "liveRender") {
    logDebug("Calling renderPlugin.startLiveEditing()...", __LINE__);
    CALL_SLOT(startLiveEditing);
    logDebug("Call of renderPlugin.startLiveEditing() returned.", __LINE__);

    // After startLiveEditing: a stop that came earlier is overwritten, and
    // what was delivered until now waits for the next delivery.
    uint64_t seen;
    {
      std::lock_guard<std::mutex> lock(wakeMutex);
      seen = deliveries;
    }
    liveRenderState.store(1);

    logDebug("Entering Live Render loop...", __LINE__);
    runLiveRenderLoop(seen);
    logDebug("Exited Live Render loop.", __LINE__);

    logDebug("Calling renderPlugin.stopLiveEditing()...", __LINE__);
    CALL_SLOT(stopLiveEditing);
    logDebug("Call of renderPlugin.stopLiveEditing() returned.", __LINE__);
  }

  logDebug("Calling renderPlugin.stop()...", __LINE__);
  CALL_SLOT(stop);
  logDebug("Call of renderPlugin.stop() returned.", __LINE__);
  return 0;
}

void Manager::runLiveRenderLoop(uint64_t seen) {
  while (liveRenderState.load() == 1) {
    {
      // The count is the wait's condition: deliveries that came while the
      // plug-in was applying give one more turn instead of waiting for the
      // next message. However many came, a turn asks and applies once.
      std::unique_lock<std::mutex> lock(wakeMutex);
      wakeCondition.wait(lock, [&] { return deliveries != seen; });
      seen = deliveries;
    }
    if (liveRenderState.load() == 1) {
      if ((CALL_SLOT(hasQueuedUpdates) & 0xff) != 0) CALL_SLOT(applyQueuedUpdates);
    }
  }
}

void Manager::wake() {
  {
    std::lock_guard<std::mutex> lock(wakeMutex);
    ++deliveries;
  }
  wakeCondition.notify_one();
}

void Manager::processLiveRenderData(const char* data, size_t length) {
  DeliveryPass pass(*this);
  if (!pass) return;  // the plug-in is being torn down
  Attribute parsed = Attribute::parseBinary(data, length);
  if (!parsed.isValid() || parsed.getType() != kTypeGroup) {
    if (kindletLog().errorEnabled()) {
      kindletLog().error(
          "Rendering::Manager::processLiveRenderData(): Given binary data could not be parsed "
          "into a GroupAttribute. Ignoring Live Render update.",
          kSource, __LINE__);
    }
    wake();
    return;
  }
  // Absent or not a group, the reserved key leaves the update whole;
  // otherwise this render's own part is folded in and the key removed.
  {
    GroupAttribute forThisRender =
        Morrigo::Selvane::LiveRendering::foldPerRenderUpdate(GroupAttribute(parsed), sequenceID);
    CALL_SLOT(submitUpdate, forThisRender.getHandle());
  }
  wake();
}

void Manager::processLiveRenderUpdate(const GroupAttribute& update) {
  DeliveryPass pass(*this);
  if (!pass) return;  // the plug-in is being torn down
  if (kindletLog().debugEnabled()) {
    kindletLog().debug("Processing Live Render Update: " + update.getXML(), kSource, __LINE__);
  }
  if (updateDebugFile.is_open()) {
    updateDebugFile << update.getXML() << "\n" << "<<<<<<<<\n" << "\n";
    updateDebugFile.flush();
  }
  CALL_SLOT(submitUpdate, update.getHandle());
  wake();
}

void Manager::processControlCommand(const std::string& command) {
  ControlCommandRecord record;
  std::memset(&record, 0, sizeof record);
  // At most 256 bytes; a longer command fills the record without terminator.
  std::memcpy(record.text, command.c_str(), std::min(std::strlen(command.c_str()), sizeof record.text));
  processControlCommand(record);
}

void Manager::processControlCommand(ControlCommandRecord record) {
  DeliveryPass pass(*this);
  if (!pass) return;  // the plug-in is being torn down
  if (record.text[0] == '\0') return;  // an empty command does not even wake
  // The comparisons include the terminator: only the exact words match.
  if (std::memcmp(record.text, "stopLiveEditing", 16) == 0) {
    liveRenderState.store(2);
  } else if (std::memcmp(record.text, "pauseRerender", 14) == 0) {
    if (kindletLog().warnEnabled()) {
      kindletLog().warn("Live Render control command 'pauseRerender' is deprecated.", kSource,
                        __LINE__);
    }
    CALL_SLOT(pauseRerender);
  } else {
    CALL_SLOT(handleControlCommand, record.text);
  }
  wake();
}

}  // namespace Rendering
