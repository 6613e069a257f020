#include "Textures.h"

#include <OpenImageIO/texture.h>

namespace pathtracer {

namespace {
OIIO::TextureSystem* textureSystem(void* system) {
  return static_cast<OIIO::TextureSystem*>(system);
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

const void* Textures::handle(const std::string& file) {
  return textureSystem(shared().system)->get_texture_handle(OIIO::ustring(file));
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
  if (eightBit) {
    OIIO::ImageSpec layout;
    *eightBit = ts->get_imagespec(name, 0, layout) && layout.format == OIIO::TypeDesc::UINT8;
  }
  return true;
}

bool Textures::lookup(const void* texture, float s, float t, float width, int channels,
                      float* out) const {
  OIIO::TextureSystem* ts = textureSystem(system);
  // The texture system's own state for this thread, found once.
  thread_local OIIO::TextureSystem::Perthread* perthread = ts->get_perthread_info();
  OIIO::TextureOpt options;
  options.swrap = options.twrap = OIIO::TextureOpt::WrapPeriodic;
  options.fill = 0;
  // Bicubic would be a B-spline that blurs even at the finest level.
  options.interpmode = OIIO::TextureOpt::InterpBilinear;
  float values[3] = {0, 0, 0};
  auto* handle = static_cast<OIIO::TextureSystem::TextureHandle*>(const_cast<void*>(texture));
  const bool ok = ts->texture(handle, perthread, options, s, t, width, 0, 0, width, 3, values);
  for (int c = 0; c < channels; ++c) out[c] = values[c];
  return ok;
}

}  // namespace pathtracer
