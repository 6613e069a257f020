// The C API for plug-ins and the host's view of the open images.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Image.h"
#include "XoImageOut/ImageHost.h"
#include "XoImageOut/XoImageOutC.h"
#include "XoLoggingHost/XoLoggerGlue.h"

struct XoImageOutImage {
  std::shared_ptr<XoImageOut::Image> image;
};

namespace XoImageOut {

namespace {

const char kSource[] = "platform/imageout/ImageOut";
const int kLargestSide = 32768;
const int kMostChannels = 64;
const size_t kLongestName = 255;

const XoLoggingHost::XoLoggerGlue& channel() {
  static const XoLoggingHost::XoLoggerGlue logger("ImageOut");
  return logger;
}

void reportError(const std::string& text) {
  if (channel().errorEnabled()) channel().error(text, kSource, __LINE__);
}

struct Table {
  std::mutex mutex;
  std::vector<std::shared_ptr<Image>> images;
  uint32_t nextId = 1;
};

Table& table() {
  static Table* shared = new Table();  // outlives every plug-in's static destructors
  return *shared;
}

std::mutex wakeMutex;
int wakeFd = -1;
std::atomic<uint64_t> updates{0};

// The doorbell of the images' reader: a pipe it sleeps on, rung when a pass
// is finished while it sleeps. Made once, kept for the process's life.
struct Doorbell {
  int ends[2] = {-1, -1};
  Doorbell() {
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) ends[0] = ends[1] = -1;
  }
};

const Doorbell& doorbell() {
  static const Doorbell* shared = new Doorbell();
  return *shared;
}

void ring() {
  const char byte = 1;
  // A full pipe has been rung already.
  (void)!::write(doorbell().ends[1], &byte, 1);
}

void wake() {
  std::lock_guard<std::mutex> lock(wakeMutex);
  if (wakeFd < 0) return;
  const uint64_t one = 1;
  // A full counter already says what this would.
  (void)!::write(wakeFd, &one, sizeof one);
}

bool validPixelType(int type) { return type == kHalf || type == kFloat; }

std::string describeOpen(const char* name) {
  return std::string("cannot open image \"") + (name ? std::string(name, strnlen(name, 300)) : "") +
         "\": ";
}

}  // namespace

const ImageDescription& PublishedImage::description() const { return image->description; }
bool PublishedImage::open() const { return !image->closed.load(std::memory_order_acquire); }
bool PublishedImage::want(std::string& error) {
  if (doorbell().ends[0] < 0) {
    error = "cannot make the doorbell of the images: " + std::string(std::strerror(errno));
    return false;
  }
  return image->want(error);
}
void PublishedImage::unwant() { image->unwant(); }
int PublishedImage::fd() const { return image->fd; }
size_t PublishedImage::slotBytes() const { return image->slotBytes; }
bool PublishedImage::take(TakenPass& pass) { return image->take(pass); }
bool PublishedImage::sleep() { return image->sleep(); }

std::vector<PublishedImage> openImages() {
  Table& t = table();
  std::lock_guard<std::mutex> lock(t.mutex);
  std::vector<PublishedImage> open;
  for (const auto& image : t.images) open.emplace_back(image);
  return open;
}

int doorbellDescriptor() { return doorbell().ends[0]; }

void setWakeDescriptor(int fd) {
  std::lock_guard<std::mutex> lock(wakeMutex);
  wakeFd = fd;
}

void countUpdate() { updates.fetch_add(1, std::memory_order_relaxed); }

}  // namespace XoImageOut

using namespace XoImageOut;

extern "C" {

XoImageOutImage* XoImageOutOpen(const char* name, int width, int height, int channelCount,
                                const char* const* channelNames, int pixelType) {
  std::string why;
  if (name == nullptr || *name == '\0' || strnlen(name, kLongestName + 1) > kLongestName) {
    why = "a name of 1 to 255 bytes is needed";
  } else if (width < 1 || height < 1 || width > kLargestSide || height > kLargestSide) {
    why = "a size of " + std::to_string(width) + "x" + std::to_string(height) +
          " (each side 1 to 32768)";
  } else if (channelCount < 1 || channelCount > kMostChannels || channelNames == nullptr) {
    why = std::to_string(channelCount) + " channels (1 to 64, each named)";
  } else if (!validPixelType(pixelType)) {
    why = "unknown pixel type " + std::to_string(pixelType);
  }
  ImageDescription description;
  std::set<std::string> seen;
  for (int i = 0; why.empty() && i < channelCount; ++i) {
    const char* channelName = channelNames[i];
    if (channelName == nullptr || *channelName == '\0' ||
        strnlen(channelName, kLongestName + 1) > kLongestName || !seen.insert(channelName).second)
      why = "channel " + std::to_string(i) + " needs a name of 1 to 255 bytes of its own";
    else
      description.channels.push_back(channelName);
  }
  if (!why.empty()) {
    reportError(describeOpen(name) + why);
    return nullptr;
  }
  description.name = name;
  description.width = width;
  description.height = height;
  description.pixelType = static_cast<PixelType>(pixelType);
  Table& t = table();
  XoImageOutImage* handle = nullptr;
  {
    std::lock_guard<std::mutex> lock(t.mutex);
    for (const auto& image : t.images) {
      if (image->description.name == description.name) {
        reportError(describeOpen(name) + "an image of that name is open");
        return nullptr;
      }
    }
    description.id = t.nextId++;
    handle = new XoImageOutImage{std::make_shared<Image>(std::move(description))};
    t.images.push_back(handle->image);
  }
  wake();
  return handle;
}

int XoImageOutWrite(XoImageOutImage* image, int x, int y, int width, int height,
                    const void* pixels, size_t rowBytes, int pixelType, uint64_t samples,
                    uint64_t sceneState) {
  if (image == nullptr) {
    reportError("cannot write to no image");
    return -1;
  }
  std::string error;
  if (!validPixelType(pixelType)) {
    error = "unknown pixel type " + std::to_string(pixelType) + " for image " +
            image->image->description.name;
  } else if (image->image->write(x, y, width, height, pixels, rowBytes,
                                 static_cast<PixelType>(pixelType), samples, sceneState, error)) {
    return 0;
  }
  reportError("cannot write: " + error);
  return -1;
}

int XoImageOutPassDone(XoImageOutImage* image) {
  if (image == nullptr) {
    reportError("cannot finish a pass of no image");
    return -1;
  }
  if (!image->image->wanted.load(std::memory_order_acquire)) return 0;
  if (image->image->passDone()) ring();
  return 0;
}

int XoImageOutWanted(const XoImageOutImage* image) {
  return image != nullptr && image->image->wanted.load(std::memory_order_acquire) ? 1 : 0;
}

void XoImageOutClose(XoImageOutImage* image) {
  if (image == nullptr) return;
  image->image->close();
  {
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.images.erase(std::remove(t.images.begin(), t.images.end(), image->image), t.images.end());
  }
  delete image;
  wake();
}

uint64_t XoImageOutUpdateCount(void) { return updates.load(std::memory_order_relaxed); }

}  // extern "C"
