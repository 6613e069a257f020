// Any bytes as a message from the controller: decoding must not crash or read
// outside them; an accepted update never carries the reserved per-render key,
// and an accepted command lies inside the message. The same bytes as a region
// holding a stream: every record read lies inside what was published.
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
  // The stream is published up to a count the first byte scales.
  const live::RegionView region{data, size};
  const uint64_t published = size == 0 ? 0 : size * data[0] / 64;
  uint64_t position = 0;
  live::Record record;
  std::string error;
  for (int i = 0; i < 64 && live::readRecord(region, position, published, record, error); ++i) {
    const uint64_t area = size - live::kRegionHeaderSize;
    if (record.next <= position || record.next > published || record.data < data + live::kRegionHeaderSize ||
        record.data + record.size > data + size || (record.data - data - live::kRegionHeaderSize) % 8 != 0 ||
        record.next - position > 2 * area)
      std::abort();
    live::ControllerMessage message;
    live::decodeControllerMessage(record.data, record.size, "7", live::RegionView(), message, error);
    position = record.next;
  }
  return 0;
}
