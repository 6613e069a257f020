#include "ImagePublisher.h"

#include "XoImageOut/XoImageOutC.h"

namespace pathtracer {

ImagePublisher::~ImagePublisher() { XoImageOutClose(image); }

void ImagePublisher::resize(int newWidth, int newHeight,
                            const std::vector<std::string>& newChannels) {
  if (image != nullptr && newWidth == width && newHeight == height && newChannels == channels)
    return;
  XoImageOutClose(image);
  width = newWidth;
  height = newHeight;
  channels = newChannels;
  std::vector<const char*> names;
  for (const std::string& name : channels) names.push_back(name.c_str());
  image = XoImageOutOpen("beauty", width, height, int(names.size()), names.data(), kXoImageHalf);
}

bool ImagePublisher::wanted() const { return XoImageOutWanted(image) != 0; }

void ImagePublisher::publish(const std::vector<float>& pixels, uint64_t samples,
                             uint64_t sceneState) {
  const size_t perPixel = channels.size();
  if (!wanted() || pixels.size() != size_t(width) * size_t(height) * perPixel) return;
  XoImageOutWrite(image, 0, 0, width, height, pixels.data(), size_t(width) * perPixel * sizeof(float),
                  kXoImageFloat, samples, sceneState);
  XoImageOutPassDone(image);
}

}  // namespace pathtracer
