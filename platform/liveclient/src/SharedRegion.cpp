#include "SharedRegion.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

namespace {
const off_t kLargestRegion = off_t(1) << 32;
}

bool SharedRegion::map(const std::string& path, std::string& error) {
  unmap();
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    error = "cannot open the shared region " + path + ": " + std::strerror(errno);
    return false;
  }
  struct stat status;
  void* mapped = MAP_FAILED;
  // A region that could shrink would end a read past its new end with SIGBUS.
  const int seals = ::fcntl(fd, F_GET_SEALS);
  if (seals < 0 || (seals & F_SEAL_SHRINK) == 0 || ::fstat(fd, &status) != 0) {
    error = "the shared region " + path + " is not an anonymous memory file sealed against shrinking";
  } else if (status.st_size < off_t(kRegionHeaderSize) || status.st_size > kLargestRegion) {
    error = "the shared region " + path + " has a size of " + std::to_string(status.st_size);
  } else {
    mapped = ::mmap(nullptr, size_t(status.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) error = "cannot map the shared region " + path + ": " + std::strerror(errno);
  }
  ::close(fd);  // the mapping keeps the memory
  if (mapped == MAP_FAILED) return false;
  base = mapped;
  size = size_t(status.st_size);
  return true;
}

void SharedRegion::unmap() {
  if (base != nullptr) ::munmap(base, size);
  base = nullptr;
  size = 0;
}

void SharedRegion::release(uint64_t mark) {
  if (base != nullptr) __atomic_store_n(static_cast<uint64_t*>(base), mark, __ATOMIC_RELEASE);
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
