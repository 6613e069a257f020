// A pass of an image as the page gets it: one binary WebSocket message, a
// 64-byte header (little-endian) and half-float pixels, so that the page
// reads it with typed arrays and no parsing.
//    0 "KVF1"                  28 u32 pixel type: 1 (half)
//    4 u32 header bytes        32 f64 pass
//    8 i32 sequenceID          40 f64 samples
//   12 u32 width               48 f64 scene state
//   16 u32 height              56 f64 when the controller got it (ms since
//   20 u32 channels                   the viewer started)
//   24 u32 text bytes
// At 64 the text "<image>\n<channel>,<channel>...", zero-padded to a multiple
// of 8; at the header bytes the pixels: interleaved channels, rows top to
// bottom.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ImageReceiver.h"

namespace KindletControl {

struct FrameInfo {
  long sequenceID = 0;
  std::string image;
  std::vector<std::string> channelNames;
  int width = 0, height = 0, channels = 0;
  uint64_t pass = 0, samples = 0, sceneState = 0;
  double receivedMs = 0;
  const unsigned char* pixels = nullptr;  // half floats, inside the frame
};

// Builds the frame; float pixels become half.
std::string encodeFrame(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
                        const unsigned char* pixels, double receivedMs);
// Reads a frame back (for saving); false for anything else.
bool decodeFrame(const std::string& frame, FrameInfo& info);

}  // namespace KindletControl
