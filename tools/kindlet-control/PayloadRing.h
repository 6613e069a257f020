// A region of shared memory that the registry writes one client's large
// updates into, so that they cross to the client without going through a
// socket. Used as a ring: space comes back as the client releases what it
// has read (the release mark in the region's header).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace KindletControl {

class PayloadRing {
 public:
  // A region of `capacity` bytes, header included; nullptr after a reason
  // in `error`.
  static std::unique_ptr<PayloadRing> create(size_t capacity, std::string& error);
  ~PayloadRing();
  PayloadRing(const PayloadRing&) = delete;
  PayloadRing& operator=(const PayloadRing&) = delete;

  // The path the client opens the region by (this process's descriptor).
  const std::string& path() const { return path_; }
  // Copies the `size` bytes of an update's body into the ring and writes
  // the shared-update message naming them to `message` (kSharedUpdateSize
  // bytes); false when the ring has no room for them now (the caller sends
  // the update whole instead).
  bool place(const char* data, size_t size, char* message);
  // Whether an update body of `size` bytes can ever be placed.
  bool canHold(size_t size) const { return size <= area; }

 private:
  PayloadRing(int fd, void* base, size_t capacity);

  int fd;
  unsigned char* base;
  size_t area;           // bytes after the header
  uint64_t written = 0;  // ring positions used so far, skips at the end included
  std::string path_;
};

}  // namespace KindletControl
