// Hands the path tracer's passes to the image service, which sends them to
// whoever watches the render; costs nothing while nobody does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct XoImageOutImage;

namespace pathtracer {

class ImagePublisher {
 public:
  ImagePublisher() = default;
  ~ImagePublisher();
  ImagePublisher(const ImagePublisher&) = delete;
  ImagePublisher& operator=(const ImagePublisher&) = delete;

  // The image "beauty" at this size with these channels (R, G, B, then each
  // output's), opened again when either changes.
  void resize(int width, int height, const std::vector<std::string>& channels);
  bool wanted() const;
  // A whole pass: width * height * channels floats.
  void publish(const std::vector<float>& pixels, uint64_t samples, uint64_t sceneState);

 private:
  XoImageOutImage* image = nullptr;
  int width = 0, height = 0;
  std::vector<std::string> channels;
};

}  // namespace pathtracer
