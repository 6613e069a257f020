// Any bytes as a message from the controller: decoding must not crash or read
// outside them; an accepted update never carries the reserved per-render key,
// and an accepted command lies inside the message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "LiveRendering/LiveRenderProtocol.h"
#include "LiveRendering/PerRenderUpdate.h"

namespace live = Morrigo::Selvane::LiveRendering;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A shared update may name any bytes of the input as its region; the first
  // call has no region at all.
  const live::RegionView regions[] = {{}, {data, size}};
  for (const char* sequenceID : {"0", "7"}) {
    live::ControllerMessage message;
    std::string error;
    if (!live::decodeControllerMessage(data, size, sequenceID, regions[sequenceID[0] == '7'],
                                       message, error)) {
      if (error.empty()) std::abort();  // every refusal says why
      continue;
    }
    if (message.kind == live::kUpdate) {
      if (!message.update.isValid() ||
          message.update.getChildByName(live::kPerRenderUpdateKey).isValid())
        std::abort();
      message.update.getXML();
    } else if (message.kind == live::kCommand || message.kind == live::kRegion) {
      const char* begin = reinterpret_cast<const char*>(data);
      if (message.command < begin || message.command + message.commandLength > begin + size)
        std::abort();
    }
  }
  return 0;
}
