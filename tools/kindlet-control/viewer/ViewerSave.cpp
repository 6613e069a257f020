#include "ViewerSave.h"

#include <Imath/half.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "ViewerFrame.h"

namespace KindletControl {

namespace {

unsigned char srgb8(float linear) {
  const float v = std::min(1.0f, std::max(0.0f, linear));
  const float encoded = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
  return static_cast<unsigned char>(std::lround(encoded * 255.0f));
}

float halfAt(const unsigned char* pixels, size_t index) {
  uint16_t bits;
  std::memcpy(&bits, pixels + 2 * index, 2);
  Imath::half value;
  value.setBits(bits);
  return float(value);
}

}  // namespace

std::string saveFrame(const std::string& frame, const std::string& directory, bool png,
                      double exposure, std::string& error) {
  FrameInfo info;
  if (!decodeFrame(frame, info)) {
    error = "no image to save";
    return std::string();
  }
  const std::string stem =
      directory + "/" + std::to_string(info.sequenceID) + "." + info.image + ".";
  std::string path;
  for (int n = 1; n < 100000; ++n) {
    path = stem + std::to_string(n) + (png ? ".png" : ".exr");
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) break;
  }
  const size_t count = size_t(info.width) * info.height;
  std::unique_ptr<OIIO::ImageOutput> out = OIIO::ImageOutput::create(path);
  bool ok = false;
  if (out && png) {
    // R, G, B as the page shows them (a single channel as grey).
    std::vector<int> source(3, 0);
    for (int c = 0; c < 3; ++c) {
      const char* names[] = {"R", "G", "B"};
      auto found = std::find(info.channelNames.begin(), info.channelNames.end(), names[c]);
      source[c] = found == info.channelNames.end() ? std::min(c, info.channels - 1)
                                                   : int(found - info.channelNames.begin());
    }
    const float scale = float(std::exp2(exposure));
    std::vector<unsigned char> bytes(count * 3);
    for (size_t i = 0; i < count; ++i)
      for (int c = 0; c < 3; ++c)
        bytes[3 * i + c] = srgb8(scale * halfAt(info.pixels, i * info.channels + source[c]));
    OIIO::ImageSpec layout(info.width, info.height, 3, OIIO::TypeDesc::UINT8);
    ok = out->open(path, layout) && out->write_image(OIIO::TypeDesc::UINT8, bytes.data());
  } else if (out) {
    OIIO::ImageSpec layout(info.width, info.height, info.channels, OIIO::TypeDesc::HALF);
    layout.channelnames = info.channelNames;
    layout.attribute("kindlet:samples", int(info.samples));
    layout.attribute("kindlet:sceneState", int(info.sceneState));
    ok = out->open(path, layout) && out->write_image(OIIO::TypeDesc::HALF, info.pixels);
  }
  if (out && !(out->close() && ok)) ok = false;
  if (!ok) {
    error = out ? out->geterror() : OIIO::geterror();
    if (error.empty()) error = "cannot write " + path;
    std::remove(path.c_str());
    return std::string();
  }
  std::error_code ignored;
  return std::filesystem::absolute(path, ignored).string();
}

}  // namespace KindletControl
