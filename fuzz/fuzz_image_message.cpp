// Any bytes as what a client sends on its image connection: a sequence of
// messages, each a u16 (the top bit: which of two connections, the rest: the
// length) and that many bytes, handed to the controller's receiver in turn. Nothing may crash or read outside the pixels it is given;
// a pass reaches the consumer only with an image's exact pixel bytes, which
// it reads whole.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "ImageReceiver.h"

namespace {

class Reader : public KindletControl::ImageConsumer {
 public:
  void pass(const KindletControl::ImageSource&, const KindletControl::ImageOpen& image,
            const KindletControl::ImagePass& pass, const unsigned char* pixels) override {
    if (pass.slot == Morrigo::Selvane::LiveRendering::kInlinePixels &&
        pass.inlineBytes != image.pixelBytes())
      std::abort();
    unsigned sum = 0;
    for (uint64_t i = 0; i < image.pixelBytes(); ++i) sum += pixels[i];
    sink += sum;
  }
  unsigned sink = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    std::cerr.setstate(std::ios::failbit);  // one line per bad message is expected
    return true;
  }();
  (void)quiet;
  Reader reader;
  KindletControl::ImageReceiver receiver(reader);
  for (size_t at = 0; at + 2 <= size;) {
    const size_t length = std::min<size_t>(data[at] | (data[at + 1] & 0x7f) << 8, size - at - 2);
    const std::string message(reinterpret_cast<const char*>(data + at + 2), length);
    const std::string answer = receiver.handle(std::string(1, char(data[at + 1] >> 7)), message);
    uint32_t image;
    uint64_t pass;
    std::string error;
    if (!answer.empty() && !Morrigo::Selvane::LiveRendering::decodeImageDone(
                               answer.data(), answer.size(), image, pass, error))
      std::abort();  // our own answers must decode
    at += 2 + length;
  }
  return 0;
}
