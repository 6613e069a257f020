// One open image of the service: its description and its three buffers.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "XoImageOut/ImageHost.h"
#include "XoImageOut/ImageRegion.h"

namespace XoImageOut {

struct PassTags {
  uint64_t samples = UINT64_MAX;
  uint64_t sceneState = UINT64_MAX;
  bool any() const { return samples != UINT64_MAX; }
  void add(uint64_t moreSamples, uint64_t state) {
    if (moreSamples < samples) samples = moreSamples;
    if (state < sceneState) sceneState = state;
  }
};

class Image {
 public:
  explicit Image(ImageDescription description) : description(std::move(description)) {}
  ~Image();
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  // Plug-in side. passDone returns whether the reader sleeps and wants its
  // doorbell rung.
  bool write(int x, int y, int width, int height, const void* pixels, size_t rowBytes,
             PixelType inputType, uint64_t samples, uint64_t sceneState, std::string& error);
  bool passDone();
  void close() { closed.store(true, std::memory_order_release); }

  // Reader side (PublishedImage).
  bool want(std::string& error);
  void unwant() { wanted.store(false, std::memory_order_release); }
  bool take(TakenPass& pass);
  bool sleep() { return base == nullptr || RegionReader(header()).sleep(); }

  const ImageDescription description;
  std::atomic<bool> closed{false};
  std::atomic<bool> wanted{false};
  int fd = -1;
  size_t slotBytes = 0;

 private:
  unsigned char* slot(unsigned index) const { return base + size_t(index) * slotBytes; }
  RegionHeader* header() const {
    return reinterpret_cast<RegionHeader*>(base + regionHeaderOffset(slotBytes));
  }
  // Before the first write of a pass that covers less than the whole image,
  // the buffer is brought up to the last finished pass.
  void prepareBack(bool wholeImage);

  std::mutex mutex;  // among the writers
  unsigned char* base = nullptr;
  unsigned back = 0;           // the writers' buffer
  int lastPublished = -1;      // buffer of the newest finished pass
  std::atomic<bool> backPrepared{false};
  PassTags backTags, publishedTags;
  uint64_t passes = 0;
};

}  // namespace XoImageOut
