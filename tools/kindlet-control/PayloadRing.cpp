#include "PayloadRing.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "LiveRendering/LiveRenderProtocol.h"

namespace KindletControl {

namespace protocol = Morrigo::Selvane::LiveRendering;

std::unique_ptr<PayloadRing> PayloadRing::create(size_t capacity, std::string& error) {
  // An anonymous memory file: gone with this process, whatever way it ends.
  // Its size is sealed, as clients refuse a region that could shrink under
  // their mapping.
  const int fd = memfd_create("kindlet-live-updates", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(capacity)) != 0 ||
      fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
    error = std::string("cannot make a shared region: ") + std::strerror(errno);
    if (fd >= 0) close(fd);
    return nullptr;
  }
  void* base = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    error = std::string("cannot map a shared region: ") + std::strerror(errno);
    close(fd);
    return nullptr;
  }
  return std::unique_ptr<PayloadRing>(new PayloadRing(fd, base, capacity));
}

PayloadRing::PayloadRing(int fd, void* base, size_t capacity)
    : fd(fd),
      base(static_cast<unsigned char*>(base)),
      area(capacity - protocol::kRegionHeaderSize),
      path_("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd)) {}

PayloadRing::~PayloadRing() {
  munmap(base, area + protocol::kRegionHeaderSize);
  close(fd);
}

bool PayloadRing::place(const char* data, size_t size, char* message) {
  uint64_t at = written % area;
  // An update never wraps: one that does not fit before the end starts over
  // at the beginning.
  const uint64_t skip = at + size > area ? area - at : 0;
  const uint64_t released = __atomic_load_n(reinterpret_cast<uint64_t*>(base), __ATOMIC_ACQUIRE);
  if (written + skip + size - released > area) return false;
  if (skip != 0) at = 0;
  std::memcpy(base + protocol::kRegionHeaderSize + at, data, size);
  written += skip + size;
  protocol::encodeSharedUpdate(protocol::kRegionHeaderSize + at, size, written, message);
  return true;
}

}  // namespace KindletControl
