#include "Image.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Half.h"

namespace XoImageOut {

Image::~Image() {
  if (base != nullptr) munmap(base, regionFileBytes(slotBytes));
  if (fd >= 0) ::close(fd);
}

bool Image::want(std::string& error) {
  std::lock_guard<std::mutex> lock(mutex);
  if (base == nullptr) {
    const size_t bytes = description.pixelBytes();
    const size_t size = (bytes + kRegionHeaderBytes - 1) / kRegionHeaderBytes * kRegionHeaderBytes;
    // Sealed so that a reader's mapping can never be cut short under it.
    const int file = memfd_create("kindlet-image", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0 || ftruncate(file, static_cast<off_t>(regionFileBytes(size))) != 0 ||
        fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
      error = std::string("cannot make the memory file of image ") + description.name + ": " +
              std::strerror(errno);
      if (file >= 0) ::close(file);
      return false;
    }
    void* mapped = mmap(nullptr, regionFileBytes(size), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (mapped == MAP_FAILED) {
      error = std::string("cannot map the memory file of image ") + description.name + ": " +
              std::strerror(errno);
      ::close(file);
      return false;
    }
    fd = file;
    slotBytes = size;
    base = static_cast<unsigned char*>(mapped);
    // The writers hold buffer 0, the exchange word buffer 1, the reader 2.
    header()->exchange.store(1, std::memory_order_relaxed);
    header()->readerSlot.store(2, std::memory_order_relaxed);
  }
  wanted.store(true, std::memory_order_release);
  return true;
}

void Image::prepareBack(bool wholeImage) {
  std::lock_guard<std::mutex> lock(mutex);
  if (backPrepared.load(std::memory_order_relaxed)) return;
  if (!wholeImage && lastPublished >= 0) {
    std::memcpy(slot(back), slot(unsigned(lastPublished)), description.pixelBytes());
    backTags = publishedTags;
  }
  if (!wholeImage && lastPublished < 0) std::memset(slot(back), 0, description.pixelBytes());
  backPrepared.store(true, std::memory_order_release);
}

bool Image::write(int x, int y, int width, int height, const void* pixels, size_t rowBytes,
                  PixelType inputType, uint64_t samples, uint64_t sceneState,
                  std::string& error) {
  const ImageDescription& d = description;
  if (x < 0 || y < 0 || width <= 0 || height <= 0 || x > d.width - width ||
      y > d.height - height) {
    error = "rectangle " + std::to_string(width) + "x" + std::to_string(height) + " at (" +
            std::to_string(x) + ", " + std::to_string(y) + ") lies outside image " + d.name + " (" +
            std::to_string(d.width) + "x" + std::to_string(d.height) + ")";
    return false;
  }
  const size_t channels = d.channels.size();
  const size_t inRow = size_t(width) * channels * bytesPerChannel(inputType);
  if (pixels == nullptr || rowBytes < inRow) {
    error = "pixels of image " + d.name + ": " +
            (pixels == nullptr ? std::string("none given")
                               : "rows of " + std::to_string(rowBytes) + " bytes, less than " +
                                     std::to_string(inRow));
    return false;
  }
  if (!wanted.load(std::memory_order_acquire)) return true;
  const bool whole = width == d.width && height == d.height;
  if (!backPrepared.load(std::memory_order_acquire)) prepareBack(whole);
  // The back buffer is the writers' alone until passDone; rectangles do not overlap.
  const size_t outPixel = channels * bytesPerChannel(d.pixelType);
  const size_t outRow = size_t(d.width) * outPixel;
  unsigned char* target = slot(back) + size_t(y) * outRow + size_t(x) * outPixel;
  const auto* source = static_cast<const unsigned char*>(pixels);
  const size_t values = size_t(width) * channels;
  for (int row = 0; row < height; ++row, target += outRow, source += rowBytes) {
    if (inputType == d.pixelType) {
      std::memcpy(target, source, inRow);
    } else if (d.pixelType == kHalf) {
      floatsToHalves(reinterpret_cast<const float*>(source), reinterpret_cast<uint16_t*>(target),
                     values);
    } else {
      halvesToFloats(reinterpret_cast<const uint16_t*>(source), reinterpret_cast<float*>(target),
                     values);
    }
  }
  std::lock_guard<std::mutex> lock(mutex);
  if (whole) backTags = PassTags();
  backTags.add(samples, sceneState);
  return true;
}

bool Image::passDone() {
  std::lock_guard<std::mutex> lock(mutex);
  if (!backPrepared.load(std::memory_order_relaxed) || !backTags.any()) return false;  // nothing written
  ++passes;
  header()->slots[back] = RegionSlotTags{passes, backTags.samples, backTags.sceneState, 0};
  const uint64_t old = header()->exchange.exchange(back | kExchangeFresh, std::memory_order_acq_rel);
  lastPublished = int(back);
  publishedTags = backTags;
  // A reader in another process could have written anything: never a
  // buffer outside the file, nor the one just handed over.
  back = unsigned(old & kExchangeSlot) % kRegionSlots;
  if (back == unsigned(lastPublished)) back = (back + 1) % kRegionSlots;
  backTags = PassTags();
  backPrepared.store(false, std::memory_order_release);
  return (old & kExchangeReaderSleeps) != 0;
}

bool Image::take(TakenPass& pass) {
  if (base == nullptr) return false;  // never wanted: nothing was kept
  RegionReader reader(header());
  unsigned index;
  RegionSlotTags tags;
  const char* error;
  if (!reader.take(index, tags, error)) return false;
  pass.pass = tags.pass;
  pass.samples = tags.samples;
  pass.sceneState = tags.sceneState;
  pass.slot = index;
  pass.pixels = slot(index);
  pass.bytes = description.pixelBytes();
  return true;
}

}  // namespace XoImageOut
