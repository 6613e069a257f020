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
  closeStream();
  if (base != nullptr) ::munmap(base, size);
  base = nullptr;
  size = 0;
}

void SharedRegion::release(uint64_t mark) {
  if (base != nullptr) __atomic_store_n(word(kReleaseMarkOffset), mark, __ATOMIC_RELEASE);
}

bool SharedRegion::openStream(uint64_t start, const std::string& doorbellPath, std::string& error) {
  closeStream();
  if (base == nullptr) {
    error = "a to-region message without a region";
    return false;
  }
  if (start % 8 != 0 || (size - kRegionHeaderSize) % 8 != 0) {
    error = "a to-region message at position " + std::to_string(start) +
            " of a region of " + std::to_string(size) + " (records lie at multiples of 8)";
    return false;
  }
  // Read and write: while this end holds a writer too, the pipe never reports
  // a hang-up, which would wake the poll for ever once the controller is gone.
  const int fd = ::open(doorbellPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) {
    error = "the doorbell " + doorbellPath + " is not a pipe" +
            (fd < 0 ? std::string(": ") + std::strerror(errno) : std::string());
    if (fd >= 0) ::close(fd);
    return false;
  }
  doorbell = fd;
  reading = start;
  return true;
}

void SharedRegion::closeStream() {
  if (doorbell >= 0) ::close(doorbell);
  doorbell = -1;
}

bool SharedRegion::pending() const {
  return __atomic_load_n(word(kPublishedOffset), __ATOMIC_ACQUIRE) != reading;
}

bool SharedRegion::next(Record& record, std::string& error) {
  const uint64_t published = __atomic_load_n(word(kPublishedOffset), __ATOMIC_ACQUIRE);
  if (readRecord(view(), reading, published, record, error)) return true;
  consumed(published);
  return false;
}

void SharedRegion::consumed(uint64_t position) {
  reading = position;
  release(position);
}

bool SharedRegion::sleep() {
  // Either the controller sees the word set after its record is published,
  // or this sees the record: both sides use sequentially consistent order.
  __atomic_store_n(word(kSleepingOffset), 1, __ATOMIC_SEQ_CST);
  if (__atomic_load_n(word(kPublishedOffset), __ATOMIC_SEQ_CST) == reading) return true;
  __atomic_store_n(word(kSleepingOffset), 0, __ATOMIC_RELAXED);
  return false;
}

void SharedRegion::woke() {
  __atomic_store_n(word(kSleepingOffset), 0, __ATOMIC_RELAXED);
  char bytes[64];
  while (::read(doorbell, bytes, sizeof bytes) > 0) {
  }
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
