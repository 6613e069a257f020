// A client's image memory file, mapped read-only by the controller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace KindletControl {

class ImageMapping {
 public:
  // Maps `path`, which must be a descriptor of process `pid` under /proc
  // and a memory file sealed against shrinking (one cut short under the
  // mapping would end a read with SIGBUS) of at least `bytes` bytes.
  // Null with a reason otherwise.
  static std::unique_ptr<ImageMapping> map(const std::string& path, long pid, uint64_t bytes,
                                           std::string& error);
  ~ImageMapping();
  ImageMapping(const ImageMapping&) = delete;
  ImageMapping& operator=(const ImageMapping&) = delete;

  const unsigned char* data() const { return base; }
  size_t size() const { return length; }

 private:
  ImageMapping(const unsigned char* base, size_t length) : base(base), length(length) {}
  const unsigned char* base;
  size_t length;
};

}  // namespace KindletControl
