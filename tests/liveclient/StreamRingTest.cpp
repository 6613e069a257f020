// The registry's ring, read by the test as a client reads it from its own
// mapping of the region.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "LiveRendering/LiveRenderProtocol.h"
#include "StreamRing.h"

namespace live = Morrigo::Selvane::LiveRendering;

TEST(StreamRing, PagesBehindTheReleaseMarkGoBackAndWhatIsUnreadStaysIntact) {
  const size_t capacity = size_t(4) << 20;
  std::string error;
  auto ring = KindletControl::StreamRing::create(capacity, error);
  ASSERT_TRUE(ring) << error;
  const int fd = open(ring->path().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  auto* region = static_cast<unsigned char*>(
      mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ASSERT_NE(region, MAP_FAILED);
  const uint64_t area = capacity - live::kRegionHeaderSize;
  uint64_t reading = ring->streamStart();
  size_t mostResident = 0;
  // 70 MB through the ring with the client 300 records (about 1 MiB) behind:
  // each record must come out as written, and the region must not keep every
  // page the stream passed through.
  const int lag = 300, count = 20000;
  for (int i = 0; i < count + lag; ++i) {
    if (i < count) {
      std::string message(3000 + i % 1000, char('a' + i % 26));
      std::memcpy(&message[0], &i, sizeof i);
      ASSERT_TRUE(ring->append(message.data(), message.size())) << "record " << i;
    }
    if (i < lag) continue;
    uint32_t size;
    std::memcpy(&size, region + live::kRegionHeaderSize + reading % area, sizeof size);
    if (size == live::kWrapRecord) {
      reading += area - reading % area;
      std::memcpy(&size, region + live::kRegionHeaderSize, sizeof size);
    }
    const unsigned char* body =
        region + live::kRegionHeaderSize + reading % area + live::kRecordHeaderSize;
    const int number = i - lag;
    int seen;
    std::memcpy(&seen, body, sizeof seen);
    ASSERT_EQ(seen, number);
    ASSERT_EQ(size, 3000u + number % 1000);
    ASSERT_TRUE(std::all_of(body + sizeof seen, body + size,
                            [&](unsigned char c) { return c == 'a' + number % 26; }))
        << "record " << number;
    reading += live::recordSpan(size);
    __atomic_store_n(reinterpret_cast<uint64_t*>(region + live::kReleaseMarkOffset), reading,
                     __ATOMIC_RELEASE);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    mostResident = std::max(mostResident, size_t(status.st_blocks) * 512);
  }
  // About 1 MiB unread, up to 1 MiB released but not yet given back.
  EXPECT_LT(mostResident, size_t(5) << 19);
  munmap(region, capacity);
  close(fd);
}
