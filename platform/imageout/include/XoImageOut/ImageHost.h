// The host's side of the image service: what the live session uses to send
// the plug-in's images on. Each image keeps three buffers in a memory file
// that the controlling side on this machine may map: the plug-in writes one,
// one holds the newest finished pass, and one is on its way (taken, until
// released). A newer pass replaces a finished one that has not been taken, so
// a slow reader gets the newest picture and never makes the plug-in wait.
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

// A finished pass, taken: valid until release().
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
  // Takes the newest finished pass not yet taken, when none is on its way.
  bool take(TakenPass& pass);
  // The pass taken is done with; its buffer may be written again.
  void release();
  // The pass taken could not be sent: it is the newest finished pass again,
  // unless a newer one has come.
  void giveBack();

 private:
  std::shared_ptr<Image> image;
};

// The images open now, oldest first.
std::vector<PublishedImage> openImages();

// The one reader of the service (the live session) is woken through the
// eventfd `fd` after every open, finished pass and close; -1 detaches.
// Detaching waits for a wake-up in progress.
void setWakeDescriptor(int fd);

// Counted by the live session before it hands an update to the plug-in.
void countUpdate();

}  // namespace XoImageOut
