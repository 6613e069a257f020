#include "ViewerFrame.h"

#include <Imath/half.h>

#include <algorithm>
#include <cstring>

namespace KindletControl {

namespace {

const size_t kHeader = 64;

template <typename T>
void put(std::string& bytes, size_t at, T value) {
  std::memcpy(&bytes[at], &value, sizeof value);  // the machines we run on are little-endian
}

template <typename T>
T get(const std::string& bytes, size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

}  // namespace

std::string encodeFrame(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
                        const unsigned char* pixels, double receivedMs) {
  std::string text = image.name + "\n";
  for (size_t i = 0; i < image.channels.size(); ++i)
    text += (i ? "," : "") + image.channels[i];
  const size_t headerBytes = kHeader + (text.size() + 7) / 8 * 8;
  const size_t values = size_t(image.width) * image.height * image.channels.size();
  std::string frame(headerBytes + values * 2, '\0');
  std::memcpy(&frame[0], "KVF1", 4);
  put<uint32_t>(frame, 4, uint32_t(headerBytes));
  put<int32_t>(frame, 8, int32_t(source.sequenceID));
  put<uint32_t>(frame, 12, uint32_t(image.width));
  put<uint32_t>(frame, 16, uint32_t(image.height));
  put<uint32_t>(frame, 20, uint32_t(image.channels.size()));
  put<uint32_t>(frame, 24, uint32_t(text.size()));
  put<uint32_t>(frame, 28, 1);
  put<double>(frame, 32, double(pass.pass));
  put<double>(frame, 40, double(pass.samples));
  put<double>(frame, 48, double(pass.sceneState));
  put<double>(frame, 56, receivedMs);
  std::memcpy(&frame[kHeader], text.data(), text.size());
  if (image.half) {
    std::memcpy(&frame[headerBytes], pixels, values * 2);
  } else {
    for (size_t i = 0; i < values; ++i) {
      float value;
      std::memcpy(&value, pixels + 4 * i, 4);
      put<uint16_t>(frame, headerBytes + 2 * i, Imath::half(value).bits());
    }
  }
  return frame;
}

bool decodeFrame(const std::string& frame, FrameInfo& info) {
  if (frame.size() < kHeader || frame.compare(0, 4, "KVF1") != 0) return false;
  const size_t headerBytes = get<uint32_t>(frame, 4);
  const size_t textBytes = get<uint32_t>(frame, 24);
  info.sequenceID = get<int32_t>(frame, 8);
  info.width = int(get<uint32_t>(frame, 12));
  info.height = int(get<uint32_t>(frame, 16));
  info.channels = int(get<uint32_t>(frame, 20));
  info.pass = uint64_t(get<double>(frame, 32));
  info.samples = uint64_t(get<double>(frame, 40));
  info.sceneState = uint64_t(get<double>(frame, 48));
  info.receivedMs = get<double>(frame, 56);
  if (headerBytes < kHeader + textBytes || headerBytes > frame.size()) return false;
  const std::string text = frame.substr(kHeader, textBytes);
  const size_t newline = text.find('\n');
  info.image = text.substr(0, newline);
  info.channelNames.clear();
  std::string names = newline == std::string::npos ? std::string() : text.substr(newline + 1);
  for (size_t begin = 0; begin <= names.size() && !names.empty();) {
    const size_t comma = std::min(names.find(',', begin), names.size());
    info.channelNames.push_back(names.substr(begin, comma - begin));
    begin = comma + 1;
  }
  if (int(info.channelNames.size()) != info.channels) return false;
  if (frame.size() - headerBytes != size_t(info.width) * info.height * info.channels * 2) return false;
  info.pixels = reinterpret_cast<const unsigned char*>(frame.data()) + headerBytes;
  return true;
}

}  // namespace KindletControl
