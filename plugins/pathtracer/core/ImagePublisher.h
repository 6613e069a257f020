// Hands the path tracer's passes to the image service, which sends them to
// whoever watches the render: beauty and each output as an image of its own,
// each copied out of the pass only while somebody takes it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "RenderScene.h"

struct XoImageOutImage;

namespace pathtracer {

class ImagePublisher {
 public:
  ImagePublisher() = default;
  ~ImagePublisher();
  ImagePublisher(const ImagePublisher&) = delete;
  ImagePublisher& operator=(const ImagePublisher&) = delete;

  // Passes of this size and layout: "beauty" (R, G, B), each output by its
  // name ("diffuse", ..., "depth" with the one channel Z) and each light
  // group as "lightGroup.GROUP"; opened again when either changes.
  void resize(int width, int height, const OutputLayout& layout);
  // Whether any of the images is taken.
  bool wanted() const;
  // A whole pass: width * height * channels floats.
  void publish(const std::vector<float>& pixels, uint64_t samples, uint64_t sceneState);

 private:
  struct Output {
    std::string name;
    int first = 0;  // its first channel in the pass
    std::vector<std::string> channels;
    XoImageOutImage* image = nullptr;
  };
  void close();

  int width = 0, height = 0;
  int stride = 0;  // channels of a pass
  std::vector<std::string> names;  // of the pass's channels
  std::vector<Output> outputs;
  std::vector<float> scratch;  // one output's pixels
};

}  // namespace pathtracer
