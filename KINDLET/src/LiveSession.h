// The live-render session of one Op tree file when the feed is the
// live-render client (SELVANE_DISABLE_PREVANE_PLUS is not "1").
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "KINDLET/src/NetworkOptions.h"
#include "KINDLET/src/RenderManager.h"
#include "LiveRendering/LiveRenderClient.h"

// "LiveRenderSession_" followed by the 1-based file index.
std::string liveSessionName(size_t fileIndex);

// What every file's session is started with.
struct LiveSessionInputs {
  const std::shared_ptr<Rendering::Manager>* manager = nullptr;  // each callback copies it
  long sequenceID = 0;
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin* rendererInfo = nullptr;
  const NetworkOptions* network = nullptr;
};

// The session step for file `fileIndex`. The name is always formed; only
// "liveRender" gets a client: a new one is built, the previous one in
// `client` deleted, and then the new session initialised with callbacks that
// each hold a copy of the Manager's shared_ptr. Rendering::RendererPluginError
// from initializeSession goes to the caller.
void startLiveSession(size_t fileIndex, const std::string& renderMethodType,
                      const std::string& opTreeFile,
                      const Arbolite3::internal::XoScenegraphIterator& iterator,
                      LiveSessionInputs& inputs,
                      std::unique_ptr<Morrigo::Selvane::LiveRendering::LiveRenderClient>& client);
