#include "ImagePublisher.h"

#include "XoImageOut/XoImageOutC.h"

namespace pathtracer {

ImagePublisher::~ImagePublisher() { XoImageOutClose(image); }

void ImagePublisher::resize(int newWidth, int newHeight) {
  if (image != nullptr && newWidth == width && newHeight == height) return;
  XoImageOutClose(image);
  static const char* const channels[] = {"R", "G", "B"};
  width = newWidth;
  height = newHeight;
  image = XoImageOutOpen("beauty", width, height, 3, channels, kXoImageHalf);
}

bool ImagePublisher::wanted() const { return XoImageOutWanted(image) != 0; }

void ImagePublisher::publish(const std::vector<float>& rgb, uint64_t samples,
                             uint64_t sceneState) {
  if (!wanted() || rgb.size() != size_t(width) * size_t(height) * 3) return;
  XoImageOutWrite(image, 0, 0, width, height, rgb.data(), size_t(width) * 3 * sizeof(float),
                  kXoImageFloat, samples, sceneState);
  XoImageOutPassDone(image);
}

}  // namespace pathtracer
