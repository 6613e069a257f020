#include "Textures.h"

#include <OpenImageIO/texture.h>

#include <cmath>
#include <map>
#include <mutex>

namespace pathtracer {

namespace {

OIIO::TextureSystem* textureSystem(void* system) {
  return static_cast<OIIO::TextureSystem*>(system);
}

float decodeSrgb(float c) {
  return c <= 0.04045f ? c / 12.92f : std::pow((c + 0.055f) / 1.055f, 2.4f);
}

// Texel index of the wrapped coordinate `x` (in texels) on a side of `size`.
int wrap(int x, int size) {
  const int r = x % size;
  return r < 0 ? r + size : r;
}

}  // namespace

Textures::Textures() : system(OIIO::TextureSystem::create(true)) {
  // Files without levels of detail get them made in memory.
  textureSystem(system)->attribute("automip", 1);
  textureSystem(system)->attribute("gray_to_rgb", 1);
}

Textures& Textures::shared() {
  static Textures textures;
  return textures;
}

bool Textures::check(const std::string& file, std::string& error, bool* eightBit) {
  int exists = 0;
  OIIO::TextureSystem* ts = textureSystem(system);
  const OIIO::ustring name(file);
  if (!ts->get_texture_info(name, 0, OIIO::ustring("exists"), OIIO::TypeDesc::INT, &exists) ||
      !exists) {
    error = "no such file";
    return false;
  }
  int resolution[2];
  if (!ts->get_texture_info(name, 0, OIIO::ustring("resolution"), OIIO::TypeDesc(OIIO::TypeDesc::INT, 2),
                            resolution)) {
    error = ts->geterror();
    if (error.empty()) error = "not an image";
    return false;
  }
  OIIO::ImageSpec layout;
  *eightBit = ts->get_imagespec(name, 0, layout) && layout.format == OIIO::TypeDesc::UINT8;
  return true;
}

std::shared_ptr<const Texture> Textures::open(const std::string& file, bool srgbIfEightBit,
                                              std::string& error) {
  static std::mutex mutex;
  static std::map<std::pair<std::string, bool>, std::weak_ptr<const Texture>> opened;
  std::lock_guard<std::mutex> lock(mutex);
  std::weak_ptr<const Texture>& slot = opened[{file, srgbIfEightBit}];
  if (std::shared_ptr<const Texture> known = slot.lock()) return known;
  bool eightBit = false;
  if (!check(file, error, &eightBit)) return nullptr;
  OIIO::TextureSystem* ts = textureSystem(system);
  const OIIO::ustring name(file);
  auto made = std::make_shared<Texture>();
  made->handle = ts->get_texture_handle(name);
  made->srgb = srgbIfEightBit && eightBit;
  OIIO::ImageSpec info;
  ts->get_imagespec(name, 0, info);
  const size_t count = size_t(info.width) * size_t(info.height);
  if (info.depth <= 1 && count > 0 && count <= Texture::kCopiedTexels && info.nchannels > 0) {
    std::vector<float> texels(count * size_t(info.nchannels));
    OIIO::TextureOpt options;
    if (ts->get_texels(name, options, 0, info.x, info.x + info.width, info.y,
                       info.y + info.height, 0, 1, 0, info.nchannels, OIIO::TypeDesc::FLOAT,
                       texels.data())) {
      // One or two channels (grey, grey and alpha) are grey.
      const int step = info.nchannels, green = step >= 3 ? 1 : 0, blue = step >= 3 ? 2 : 0;
      Texture::Level finest;
      finest.width = info.width;
      finest.height = info.height;
      finest.rgb.resize(3 * count);
      for (size_t i = 0; i < count; ++i) {
        const float* in = &texels[i * size_t(step)];
        float* out = &finest.rgb[3 * i];
        out[0] = in[0];
        out[1] = in[green];
        out[2] = in[blue];
        if (made->srgb)
          for (int c = 0; c < 3; ++c) out[c] = decodeSrgb(out[c]);
      }
      made->levels.push_back(std::move(finest));
      // Each coarser level averages 2x2 texels of the one before, in linear values.
      while (made->levels.back().width > 1 || made->levels.back().height > 1) {
        const Texture::Level& fine = made->levels.back();
        Texture::Level coarse;
        coarse.width = std::max(1, fine.width / 2);
        coarse.height = std::max(1, fine.height / 2);
        coarse.rgb.resize(3 * size_t(coarse.width) * size_t(coarse.height));
        for (int y = 0; y < coarse.height; ++y)
          for (int x = 0; x < coarse.width; ++x)
            for (int c = 0; c < 3; ++c) {
              float sum = 0;
              for (int dy = 0; dy < 2; ++dy)
                for (int dx = 0; dx < 2; ++dx) {
                  const int fx = std::min(2 * x + dx, fine.width - 1);
                  const int fy = std::min(2 * y + dy, fine.height - 1);
                  sum += fine.rgb[3 * (size_t(fy) * fine.width + fx) + c];
                }
              coarse.rgb[3 * (size_t(y) * coarse.width + x) + c] = sum * 0.25f;
            }
        made->levels.push_back(std::move(coarse));
      }
    }
  }
  slot = made;
  return made;
}

bool Textures::lookup(const void* texture, float s, float t, float width, float* out) const {
  OIIO::TextureSystem* ts = textureSystem(system);
  // The texture system's own state for this thread, found once.
  thread_local OIIO::TextureSystem::Perthread* perthread = ts->get_perthread_info();
  OIIO::TextureOpt options;
  options.swrap = options.twrap = OIIO::TextureOpt::WrapPeriodic;
  options.fill = 0;
  // Bicubic would be a B-spline that blurs even at the finest level.
  options.interpmode = OIIO::TextureOpt::InterpBilinear;
  auto* handle = static_cast<OIIO::TextureSystem::TextureHandle*>(const_cast<void*>(texture));
  return ts->texture(handle, perthread, options, s, t, width, 0, 0, width, 3, out);
}

void Texture::bilinear(const Level& level, float s, float t, float* out) const {
  // Texel centres sit at half-integers.
  const float x = (s - std::floor(s)) * float(level.width) - 0.5f;
  const float y = (t - std::floor(t)) * float(level.height) - 0.5f;
  const float x0 = std::floor(x), y0 = std::floor(y);
  const float fx = x - x0, fy = y - y0;
  const int ix0 = wrap(int(x0), level.width), ix1 = wrap(int(x0) + 1, level.width);
  const int iy0 = wrap(int(y0), level.height), iy1 = wrap(int(y0) + 1, level.height);
  const float* row0 = &level.rgb[3 * size_t(iy0) * size_t(level.width)];
  const float* row1 = &level.rgb[3 * size_t(iy1) * size_t(level.width)];
  for (int c = 0; c < 3; ++c) {
    const float top = row0[3 * ix0 + c] + (row0[3 * ix1 + c] - row0[3 * ix0 + c]) * fx;
    const float bottom = row1[3 * ix0 + c] + (row1[3 * ix1 + c] - row1[3 * ix0 + c]) * fx;
    out[c] = top + (bottom - top) * fy;
  }
}

bool Texture::lookup(float s, float t, float width, int channels, float* out) const {
  float values[3] = {0, 0, 0};
  bool ok = std::isfinite(s) && std::isfinite(t);
  if (ok && copied()) {
    // The level whose texels are as wide as the footprint, blended with the
    // next coarser one.
    const float lod = width > 0 ? std::log2(width * float(std::max(levels[0].width,
                                                                     levels[0].height)))
                                : 0;
    if (!(lod > 0)) {
      bilinear(levels[0], s, t, values);
    } else if (lod >= float(levels.size() - 1)) {
      bilinear(levels.back(), s, t, values);
    } else {
      const int k = int(lod);
      const float f = lod - float(k);
      float coarse[3];
      bilinear(levels[size_t(k)], s, t, values);
      bilinear(levels[size_t(k) + 1], s, t, coarse);
      for (int c = 0; c < 3; ++c) values[c] += (coarse[c] - values[c]) * f;
    }
  } else if (ok) {
    ok = Textures::shared().lookup(handle, s, t, width, values);
    if (ok && srgb)
      for (float& c : values) c = decodeSrgb(c);
  }
  for (int c = 0; c < channels; ++c) out[c] = values[c];
  return ok;
}

}  // namespace pathtracer
