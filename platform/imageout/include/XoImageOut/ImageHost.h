// The host's side of the image service: what the live session uses to send
// the plug-in's images on. Each image keeps three buffers in a memory file
// (ImageRegion.h) that the controlling side on this machine may map: the
// plug-in writes one, one holds the newest finished pass, and the reader
// holds the one it took last. A newer pass replaces a finished one that has
// not been taken, so a slow reader gets the newest picture and never makes
// the plug-in wait. There is one reader at a time: the live session, or the
// controller it hands the memory files to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace XoImageOut {

enum PixelType : uint8_t { kHalf = 1, kFloat = 2 };

inline size_t bytesPerChannel(PixelType type) { return type == kHalf ? 2 : 4; }

struct ImageDescription {
  uint32_t id = 0;  // unique within the process
  std::string name;
  int width = 0;
  int height = 0;
  std::vector<std::string> channels;
  PixelType pixelType = kHalf;
  size_t pixelBytes() const {
    return size_t(width) * size_t(height) * channels.size() * bytesPerChannel(pixelType);
  }
};

// A finished pass, taken: its buffer is the reader's until its next take.
struct TakenPass {
  uint64_t pass = 0;  // numbered from 1 per image
  uint64_t samples = 0;
  uint64_t sceneState = 0;
  unsigned slot = 0;  // buffer index within the memory file
  const unsigned char* pixels = nullptr;
  size_t bytes = 0;
};

class Image;  // one open image (src/Image.h)

class PublishedImage {
 public:
  explicit PublishedImage(std::shared_ptr<Image> image) : image(std::move(image)) {}
  const ImageDescription& description() const;
  // False once the plug-in has closed it.
  bool open() const;
  // From now on passes are kept for taking (before: writes are dropped).
  // Makes the memory file on first use; false with a reason.
  bool want(std::string& error);
  void unwant();
  // The memory file's descriptor and the size of one buffer in it (buffer i
  // starts at i * slotBytes); -1 before want().
  int fd() const;
  size_t slotBytes() const;
  // Takes the newest finished pass not yet taken.
  bool take(TakenPass& pass);
  // Asks for the doorbell at the next finished pass; false when one is
  // waiting to be taken already.
  bool sleep();

 private:
  std::shared_ptr<Image> image;
};

// The images open now, oldest first.
std::vector<PublishedImage> openImages();

// The live session is woken through the eventfd `fd` after every open and
// close; -1 detaches. Detaching waits for a wake-up in progress.
void setWakeDescriptor(int fd);

// The read end of the pipe that the reader of the images sleeps on: a byte
// comes when a pass is finished while the reader sleeps (ImageRegion.h,
// RegionReader::sleep). The same for every image; -1 if it could not be made.
int doorbellDescriptor();

// Counted by the live session before it hands an update to the plug-in.
void countUpdate();

}  // namespace XoImageOut
