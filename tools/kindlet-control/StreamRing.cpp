#include "StreamRing.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "LiveRendering/LiveRenderProtocol.h"

namespace KindletControl {

namespace protocol = Morrigo::Selvane::LiveRendering;

namespace {
const uint64_t kReturnChunk = uint64_t(1) << 20;

void writeRecordHeader(unsigned char* at, uint32_t size) {
  for (int i = 0; i < 8; ++i) at[i] = static_cast<unsigned char>(i < 4 ? size >> (8 * i) : 0);
}
}  // namespace

std::unique_ptr<StreamRing> StreamRing::create(size_t capacity, std::string& error) {
  // An anonymous memory file: gone with this process, whatever way it ends.
  // Its size is sealed, as clients refuse a region that could shrink under
  // their mapping. Records lie at multiples of 8.
  capacity &= ~size_t(7);
  int doorbell[2] = {-1, -1};
  const int fd = memfd_create("kindlet-live-updates", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(capacity)) != 0 ||
      fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0 ||
      pipe2(doorbell, O_CLOEXEC | O_NONBLOCK) != 0) {
    error = std::string("cannot make a shared region: ") + std::strerror(errno);
    if (fd >= 0) close(fd);
    return nullptr;
  }
  void* base = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    error = std::string("cannot map a shared region: ") + std::strerror(errno);
    close(fd);
    close(doorbell[0]);
    close(doorbell[1]);
    return nullptr;
  }
  return std::unique_ptr<StreamRing>(new StreamRing(fd, base, capacity, doorbell));
}

StreamRing::StreamRing(int fd, void* base, size_t capacity, const int pipe[2])
    : fd(fd),
      doorbell{pipe[0], pipe[1]},
      base(static_cast<unsigned char*>(base)),
      area(capacity - protocol::kRegionHeaderSize),
      path_("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd)),
      doorbellPath_("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(pipe[0])) {}

StreamRing::~StreamRing() {
  munmap(base, area + protocol::kRegionHeaderSize);
  close(fd);
  close(doorbell[0]);
  close(doorbell[1]);
}

bool StreamRing::full(uint64_t size) {
  if (written + size - released <= area) return false;
  released = __atomic_load_n(word(protocol::kReleaseMarkOffset), __ATOMIC_ACQUIRE);
  return written + size - released > area;
}

void StreamRing::returnReleasedPages() {
  if (written - returned < kReturnChunk) return;
  released = __atomic_load_n(word(protocol::kReleaseMarkOffset), __ATOMIC_ACQUIRE);
  // A mark that is behind or ahead of what it can be comes from a broken
  // client: it gives nothing back.
  if (released > written || released < returned || released - returned < kReturnChunk) return;
  static const uint64_t page = uint64_t(sysconf(_SC_PAGESIZE));
  uint64_t end = 0;  // offset in the region where the last stretch ends
  for (uint64_t from = std::max(returned, released - std::min(released, uint64_t(area)));
       from < released;) {
    const uint64_t at = from % area;
    const uint64_t length = std::min(released - from, area - at);
    // Only whole pages: a part of one may hold what is not released, and the
    // header's page is never touched (the area starts after the header).
    const uint64_t first = (protocol::kRegionHeaderSize + at + page - 1) / page * page;
    end = protocol::kRegionHeaderSize + at + length;
    const uint64_t last = end / page * page;
    // A failure only leaves the pages in place.
    if (last > first)
      fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(first), off_t(last - first));
    from += length;
  }
  // The page that holds the mark goes back with the next chunk.
  returned = released - end % page;
}

uint64_t StreamRing::streamStart() {
  __atomic_store_n(word(protocol::kPublishedOffset), written, __ATOMIC_RELEASE);
  return written;
}

bool StreamRing::canHoldRecord(size_t size) const { return protocol::recordSpan(size) <= area / 2; }

bool StreamRing::append(const char* message, size_t size) {
  // Before writing: what is written next may lie on pages given back now.
  returnReleasedPages();
  const uint64_t at = written % area;
  const uint64_t span = protocol::recordSpan(size);
  // A record never wraps: a wrap record sends the client to the beginning.
  const uint64_t skip = span > area - at ? area - at : 0;
  if (full(skip + span)) return false;
  unsigned char* record = base + protocol::kRegionHeaderSize + at;
  if (skip != 0) {
    writeRecordHeader(record, protocol::kWrapRecord);
    record = base + protocol::kRegionHeaderSize;
  }
  writeRecordHeader(record, static_cast<uint32_t>(size));
  std::memcpy(record + protocol::kRecordHeaderSize, message, size);
  written += skip + span;
  // Either the client sees this count before it sleeps, or this sees that it
  // sleeps: both sides use sequentially consistent order.
  __atomic_store_n(word(protocol::kPublishedOffset), written, __ATOMIC_SEQ_CST);
  if (__atomic_load_n(word(protocol::kSleepingOffset), __ATOMIC_SEQ_CST) != 0 &&
      __atomic_exchange_n(word(protocol::kSleepingOffset), 0, __ATOMIC_SEQ_CST) != 0) {
    const char ring = 1;
    // A full pipe already wakes the client.
    while (write(doorbell[1], &ring, 1) < 0 && errno == EINTR) {
    }
  }
  return true;
}

}  // namespace KindletControl
