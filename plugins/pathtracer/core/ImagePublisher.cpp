#include "ImagePublisher.h"

#include "XoImageOut/XoImageOutC.h"

namespace pathtracer {

ImagePublisher::~ImagePublisher() { close(); }

void ImagePublisher::close() {
  for (Output& output : outputs) XoImageOutClose(output.image);
  outputs.clear();
}

void ImagePublisher::resize(int newWidth, int newHeight, const OutputLayout& layout) {
  if (!outputs.empty() && newWidth == width && newHeight == height && layout.names == names)
    return;
  close();
  width = newWidth;
  height = newHeight;
  stride = layout.channels;
  names = layout.names;
  const std::vector<std::string> rgb = {"R", "G", "B"};
  outputs.push_back({"beauty", 0, rgb});
  const struct { const char* name; int first; } named[] = {
      {"diffuse", layout.diffuse}, {"specular", layout.specular}, {"emission", layout.emission},
      {"albedo", layout.albedo}, {"normal", layout.normal}};
  for (const auto& output : named)
    if (output.first >= 0) outputs.push_back({output.name, output.first, rgb});
  if (layout.depth >= 0) outputs.push_back({"depth", layout.depth, {"Z"}});
  // A group's channels are named GROUP.R, GROUP.G, GROUP.B.
  for (int first = layout.groups; first >= 0 && first + 2 < layout.channels; first += 3) {
    const std::string& red = names[size_t(first)];
    outputs.push_back({"lightGroup." + red.substr(0, red.size() - 2), first, rgb});
  }
  for (Output& output : outputs) {
    std::vector<const char*> channelNames;
    for (const std::string& name : output.channels) channelNames.push_back(name.c_str());
    output.image = XoImageOutOpen(output.name.c_str(), width, height, int(channelNames.size()),
                                  channelNames.data(), kXoImageHalf);
  }
}

bool ImagePublisher::wanted() const {
  for (const Output& output : outputs)
    if (XoImageOutWanted(output.image)) return true;
  return false;
}

void ImagePublisher::publish(const std::vector<float>& pixels, uint64_t samples,
                             uint64_t sceneState) {
  const size_t count = size_t(width) * size_t(height);
  if (pixels.size() != count * size_t(stride)) return;
  for (Output& output : outputs) {
    if (!XoImageOutWanted(output.image)) continue;
    const size_t own = output.channels.size();
    const float* from = pixels.data();
    if (own != size_t(stride)) {
      // The service takes whole pixels, so the output's channels are gathered.
      scratch.resize(count * own);
      for (size_t p = 0; p < count; ++p)
        for (size_t c = 0; c < own; ++c)
          scratch[p * own + c] = pixels[p * size_t(stride) + size_t(output.first) + c];
      from = scratch.data();
    }
    XoImageOutWrite(output.image, 0, 0, width, height, from, size_t(width) * own * sizeof(float),
                    kXoImageFloat, samples, sceneState);
    XoImageOutPassDone(output.image);
  }
}

}  // namespace pathtracer
