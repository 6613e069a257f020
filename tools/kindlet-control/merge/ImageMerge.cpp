#include "ImageMerge.h"

#include <Imath/half.h>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace KindletControl {

namespace protocol = Morrigo::Selvane::LiveRendering;

namespace {

std::string kindletOf(const ImageSource& source) {
  return std::to_string(source.pid) + "/" + source.sessionName;
}

bool sameLayout(const ImageOpen& a, const ImageOpen& b) {
  return a.width == b.width && a.height == b.height && a.channels == b.channels && a.half == b.half;
}

float valueAt(const unsigned char* pixels, size_t i, bool half) {
  if (half) {
    uint16_t bits;
    std::memcpy(&bits, pixels + 2 * i, 2);
    Imath::half value;
    value.setBits(bits);
    return float(value);
  }
  float value;
  std::memcpy(&value, pixels + 4 * i, 4);
  return value;
}

}  // namespace

ImageMerge::ImageMerge(ImageConsumer& downstream, std::ostream& log)
    : downstream(downstream), log(log) {}

ImageSource ImageMerge::mergedSource() {
  ImageSource source;
  source.sessionName = "merged";
  return source;
}

void ImageMerge::startState(Merged& merged, const ImageOpen& image, uint64_t sceneState) {
  const uint32_t id = merged.open.image;
  merged.open = image;
  merged.open.image = id;
  merged.open.region.clear();
  merged.open.slotBytes = 0;
  merged.sceneState = sceneState;
  merged.from.clear();
  merged.sum.assign(image.pixelBytes() / (image.half ? 2 : 4), 0.0f);
  merged.samples = 0;
  merged.layoutWarned = false;
}

void ImageMerge::accumulate(Merged& merged, const unsigned char* pixels, double weight) const {
  const float w = float(weight);
  const bool half = merged.open.half;
  float* sum = merged.sum.data();
  for (size_t i = 0, n = merged.sum.size(); i < n; ++i) sum[i] += w * valueAt(pixels, i, half);
}

void ImageMerge::pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
                      const unsigned char* pixels) {
  auto found = images.find(image.name);
  if (found == images.end()) {
    found = images.emplace(image.name, Merged()).first;
    found->second.open.image = uint32_t(images.size());
    startState(found->second, image, pass.sceneState);
  }
  Merged& merged = found->second;
  if (pass.sceneState < merged.sceneState) return;  // its kindlet has not caught up yet
  if (pass.sceneState > merged.sceneState) startState(merged, image, pass.sceneState);
  if (!sameLayout(image, merged.open)) {
    if (!merged.layoutWarned)
      log << "kindlet-control: image " << image.name << " of session " << source.sessionName
          << " pid " << source.pid << " has another size or channels than the other kindlets'"
          << " in scene state " << pass.sceneState << "; its passes are left out" << std::endl;
    merged.layoutWarned = true;
    return;
  }
  if (pass.samples == 0) {
    // The quick first image of the state: shown until full samples come.
    if (merged.samples == 0) handOn(merged, 0, pixels);
    return;
  }
  Contribution& mine = merged.from[kindletOf(source)];
  if (mine.samples > 0) accumulate(merged, mine.pixels.data(), -double(mine.samples));
  accumulate(merged, pixels, double(pass.samples));
  merged.samples += pass.samples - mine.samples;
  mine.samples = pass.samples;
  mine.pixels.assign(pixels, pixels + image.pixelBytes());
  handOn(merged, merged.samples, nullptr);
}

void ImageMerge::handOn(Merged& merged, uint64_t samples, const unsigned char* pixels) {
  if (pixels == nullptr) {
    const size_t n = merged.sum.size();
    merged.out.resize(merged.open.pixelBytes());
    const float scale = 1.0f / float(samples);
    for (size_t i = 0; i < n; ++i) {
      const float value = merged.sum[i] * scale;
      if (merged.open.half) {
        const uint16_t bits = Imath::half(value).bits();
        std::memcpy(&merged.out[2 * i], &bits, 2);
      } else {
        std::memcpy(&merged.out[4 * i], &value, 4);
      }
    }
    pixels = merged.out.data();
  }
  ImagePass out;
  out.image = merged.open.image;
  out.pass = ++merged.passes;
  out.samples = samples;
  out.sceneState = merged.sceneState;
  downstream.pass(mergedSource(), merged.open, out, pixels);
}

void ImageMerge::closed(const ImageSource& source, const ImageOpen& image) {
  auto found = images.find(image.name);
  if (found == images.end()) return;
  Merged& merged = found->second;
  auto mine = merged.from.find(kindletOf(source));
  if (mine == merged.from.end()) return;
  merged.samples -= mine->second.samples;
  merged.from.erase(mine);
  // Recomputed rather than subtracted, so that what is left is exact.
  std::fill(merged.sum.begin(), merged.sum.end(), 0.0f);
  for (const auto& other : merged.from)
    accumulate(merged, other.second.pixels.data(), double(other.second.samples));
  log << "kindlet-control: session " << source.sessionName << " pid " << source.pid
      << " left the view; image " << image.name << " goes on from " << merged.from.size()
      << " kindlets (" << merged.samples << " samples)" << std::endl;
}

}  // namespace KindletControl
