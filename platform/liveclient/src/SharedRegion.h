// The controller's shared payload region as the client maps it: read for the
// updates it holds, written only in its header (the release mark, and the
// word that says the client sleeps). Once the controller has moved the
// stream into the region it also holds the messages themselves, as records,
// and the doorbell that wakes the client is open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "LiveRendering/LiveRenderProtocol.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

class SharedRegion {
 public:
  SharedRegion() = default;
  ~SharedRegion() { unmap(); }
  SharedRegion(const SharedRegion&) = delete;
  SharedRegion& operator=(const SharedRegion&) = delete;

  // Maps the region at `path` in place of the current one; false with a
  // reason (and nothing mapped). Only an anonymous memory file is taken, so a
  // controller cannot make the client write into an ordinary file.
  bool map(const std::string& path, std::string& error);
  void unmap();
  RegionView view() const { return {static_cast<const unsigned char*>(base), size}; }
  // Tells the controller that what precedes `mark` may be overwritten.
  void release(uint64_t mark);

  // Messages come through the region from ring position `start` on, the
  // doorbell being the pipe at `doorbellPath`; false with a reason.
  bool openStream(uint64_t start, const std::string& doorbellPath, std::string& error);
  // Back to the socket (the stream's to-socket record, a new region).
  void closeStream();
  bool streamOpen() const { return doorbell >= 0; }
  int doorbellFd() const { return doorbell; }
  // Whether the controller has published a record not yet read.
  bool pending() const;
  // The next record, and the position after it (to pass to consumed()).
  // On a corrupt stream, false with a reason; everything published so far
  // is then skipped, since no record boundary can be trusted.
  bool next(Record& record, std::string& error);
  void consumed(uint64_t position);
  // Says the client is about to sleep on the doorbell; false (and awake)
  // when a record came meanwhile.
  bool sleep();
  // After the sleep: the doorbell's bytes are read and the word cleared.
  void woke();

 private:
  uint64_t* word(size_t offset) const {
    return reinterpret_cast<uint64_t*>(static_cast<unsigned char*>(base) + offset);
  }

  void* base = nullptr;
  size_t size = 0;
  int doorbell = -1;      // our own descriptor of the controller's pipe, read and write
  uint64_t reading = 0;   // ring position of the next record
};

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
