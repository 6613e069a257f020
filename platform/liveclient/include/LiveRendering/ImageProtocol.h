// Images from a live-render client to its controller
// (docs/live-render-protocol.md, "Images"). They travel on a connection of
// their own, so that pixels never queue behind updates or ahead of them: the
// client opens it once the controller has asked for images (kImagesWanted),
// greets with kImageHello, announces each image with kImageOpen and sends
// passes with kImagePass. The controller answers each pass with kImageDone;
// until then the client sends no newer pass of that image, so a slow
// controller gets the newest pass, never a backlog.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "XoImageOut/ImageRegion.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

enum ImageMessageKind : uint8_t {
  // client -> controller, on the image connection
  kImageHello = 0x04,  // body: u32 length, then a JSON object naming the session
  kImageOpen = 0x05,   // body: u32 length, then a JSON object describing the image
  kImagePass = 0x06,   // body: fixed header (kImagePassHeaderSize), then pixels when inline
  kImageClose = 0x07,  // body: u32 image
  // controller -> client, on the image connection
  kImageDone = 0x89,   // body: u32 image, u64 pass
};

// kImagesWantedTaken (0x8b, LiveRenderProtocol.h) asks for images as
// kImagesWanted does, from a controller that, on this machine, takes the
// passes from each image's region itself (XoImageOut/ImageRegion.h), woken
// by the doorbell its kImageOpen names: no kImagePass or kImageDone then.
//
// A pass's pixels either lie in buffer `slot` of the image's memory file or,
// with this slot, follow the header in the message.
const uint32_t kInlinePixels = 0xffffffffu;
const unsigned kImageSlots = XoImageOut::kRegionSlots;
// The header page after the buffers.
const uint64_t kImageHeaderBytes = XoImageOut::kRegionHeaderBytes;
const uint64_t kLargestSlotBytes = uint64_t(1) << 40;
// kind, u32 image, u32 slot, u64 pass, u64 samples, u64 scene state
const size_t kImagePassHeaderSize = 33;
const size_t kImageDoneSize = 13;
const size_t kImageCloseSize = 5;
const int kLargestImageSide = 32768;
const size_t kMostImageChannels = 64;

struct ImageHello {
  std::string sessionName;
  long sequenceID = 0;
  long pid = 0;
};

struct ImageOpen {
  uint32_t image = 0;
  std::string name;
  int width = 0;
  int height = 0;
  std::vector<std::string> channels;
  bool half = true;        // else 32-bit float
  std::string region;      // path of the memory file; empty: pixels come inline
  uint64_t slotBytes = 0;  // buffer i starts at i * slotBytes, the header after the last
  // The pipe the controller sleeps on when it takes passes from the region
  // itself (it asked with kImagesWantedTaken); empty: passes come as messages.
  std::string doorbell;
  uint64_t pixelBytes() const {
    return uint64_t(width) * uint64_t(height) * channels.size() * (half ? 2 : 4);
  }
};

struct ImagePass {
  uint32_t image = 0;
  uint32_t slot = kInlinePixels;
  uint64_t pass = 0;
  uint64_t samples = 0;
  uint64_t sceneState = 0;
  const unsigned char* pixels = nullptr;  // inline pixels, within the message
  size_t inlineBytes = 0;
};

std::string encodeImageHello(const ImageHello& hello);
std::string encodeImageOpen(const ImageOpen& open);
// The header of a pass; inline pixels are appended by the caller.
std::string encodeImagePassHeader(const ImagePass& pass);
std::string encodeImageClose(uint32_t image);
std::string encodeImageDone(uint32_t image, uint64_t pass);

// Each returns false with a one-line reason for bytes that are not a
// well-formed message of its kind. decodeImageOpen also checks that the
// description is usable: sides 1 to 32768, 1 to 64 named channels, a known
// pixel type, and buffers that hold the pixels.
bool decodeImageHello(const void* data, size_t size, ImageHello& hello, std::string& error);
bool decodeImageOpen(const void* data, size_t size, ImageOpen& open, std::string& error);
bool decodeImagePass(const void* data, size_t size, ImagePass& pass, std::string& error);
bool decodeImageClose(const void* data, size_t size, uint32_t& image, std::string& error);
bool decodeImageDone(const void* data, size_t size, uint32_t& image, uint64_t& pass,
                     std::string& error);

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
