// Hands the path tracer's passes to the image service, which sends them to
// whoever watches the render; costs nothing while nobody does.
#pragma once

#include <cstdint>
#include <vector>

struct XoImageOutImage;

namespace pathtracer {

class ImagePublisher {
 public:
  ImagePublisher() = default;
  ~ImagePublisher();
  ImagePublisher(const ImagePublisher&) = delete;
  ImagePublisher& operator=(const ImagePublisher&) = delete;

  // The image "beauty" (R, G, B) at this size, opened again when it changes.
  void resize(int width, int height);
  bool wanted() const;
  // A whole pass: width * height * 3 floats.
  void publish(const std::vector<float>& rgb, uint64_t samples, uint64_t sceneState);

 private:
  XoImageOutImage* image = nullptr;
  int width = 0, height = 0;
};

}  // namespace pathtracer
