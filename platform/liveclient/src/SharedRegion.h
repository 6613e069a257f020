// The controller's shared payload region as the client maps it: read for the
// updates it holds, written only at the release mark in its header.
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

 private:
  void* base = nullptr;
  size_t size = 0;
};

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
