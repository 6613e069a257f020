// A client's image memory file, mapped by the controller, and the doorbell
// the controller sleeps on when it takes passes from such files itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "XoImageOut/ImageRegion.h"

namespace KindletControl {

class ImageMapping {
 public:
  // Maps `path`, which must be a descriptor of process `pid` under /proc
  // and a memory file sealed against shrinking (one cut short under the
  // mapping would end a read with SIGBUS) that holds three buffers of
  // `slotBytes` and, when `withHeader`, the header page after them (mapped
  // for writing, for taking passes). Null with a reason otherwise.
  static std::unique_ptr<ImageMapping> map(const std::string& path, long pid, uint64_t slotBytes,
                                           bool withHeader, std::string& error);
  ~ImageMapping();
  ImageMapping(const ImageMapping&) = delete;
  ImageMapping& operator=(const ImageMapping&) = delete;

  const unsigned char* data() const { return base; }
  size_t size() const { return length; }
  // Null unless mapped with the header.
  XoImageOut::RegionHeader* header() const { return header_; }

 private:
  ImageMapping(const unsigned char* base, size_t length, XoImageOut::RegionHeader* header)
      : base(base), length(length), header_(header) {}
  const unsigned char* base;
  size_t length;
  XoImageOut::RegionHeader* header_;
};

class ImageDoorbell {
 public:
  // Opens `path`, which must be a pipe that is a descriptor of process
  // `pid` under /proc; null with a reason otherwise.
  static std::unique_ptr<ImageDoorbell> open(const std::string& path, long pid,
                                             std::string& error);
  ~ImageDoorbell();
  ImageDoorbell(const ImageDoorbell&) = delete;
  ImageDoorbell& operator=(const ImageDoorbell&) = delete;

  int fd() const { return descriptor; }
  const std::string& path() const { return path_; }
  // Reads what the bell left, so that the next sleep waits for a new ring.
  void drain() const;

 private:
  ImageDoorbell(int descriptor, std::string path) : descriptor(descriptor), path_(std::move(path)) {}
  int descriptor;
  std::string path_;
};

}  // namespace KindletControl
