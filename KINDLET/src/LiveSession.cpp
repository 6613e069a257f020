#include "KINDLET/src/LiveSession.h"

#include <cstdio>
#include <functional>

using Morrigo::Selvane::LiveRendering::LiveRenderClient;

std::string liveSessionName(size_t fileIndex) {
  char text[48];
  snprintf(text, sizeof text, "LiveRenderSession_%lu", static_cast<unsigned long>(fileIndex));
  return text;
}

void startLiveSession(size_t fileIndex, const std::string& renderMethodType,
                      const std::string& opTreeFile,
                      const Arbolite3::internal::XoScenegraphIterator& iterator,
                      LiveSessionInputs& inputs, std::unique_ptr<LiveRenderClient>& client) {
  const std::string sessionName = liveSessionName(fileIndex);
  if (renderMethodType != "liveRender") return;

  std::unique_ptr<LiveRenderClient> next(new LiveRenderClient());
  // The old client goes before the new session starts, so the controller
  // never sees two sessions of this render at once.
  client.reset();

  void (Rendering::Manager::*onCommand)(const std::string&) =
      &Rendering::Manager::processControlCommand;
  LiveRenderClient::CommandCallback commandCallback =
      std::bind(onCommand, *inputs.manager, std::placeholders::_1);
  LiveRenderClient::UpdateCallback updateCallback =
      std::bind(&Rendering::Manager::processLiveRenderUpdate, *inputs.manager, std::placeholders::_1);

  next->initializeSession(sessionName, inputs.sequenceID, opTreeFile, iterator,
                          *inputs.rendererInfo, inputs.network->host,
                          inputs.network->serviceRegistryPort, updateCallback, commandCallback);
  client = std::move(next);
}
