// Image textures, read through a texture system shared by the whole process:
// tiles are cached, a file read once however many materials use it.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace pathtracer {

// One texture as shading reads it. A texture of at most kCopiedTexels keeps
// a linear copy of itself with its levels of detail (colour already decoded),
// so that a look-up is a few loads instead of a call into the texture
// system; a larger one is looked up in the texture system each time.
class Texture {
 public:
  static constexpr size_t kCopiedTexels = size_t(1) << 22;

  // `channels` (1 or 3) values at (s, t), with t = 0 the top row, wrapping,
  // filtered over a footprint of `width` in texture space (0: bilinear at
  // the finest level). An image of one channel gives it to all three.
  // False, with zeros in `out`, when it cannot be read.
  bool lookup(float s, float t, float width, int channels, float* out) const;
  bool copied() const { return !levels.empty(); }

 private:
  friend class Textures;
  struct Level {
    int width = 0, height = 0;
    std::vector<float> rgb;
  };
  void bilinear(const Level& level, float s, float t, float* out) const;

  const void* handle = nullptr;  // the texture system's
  bool srgb = false;             // 8-bit values taken as sRGB-encoded, decoded
  std::vector<Level> levels;     // finest first; empty: not copied
};

class Textures {
 public:
  // The process's shared texture system; lookups are thread-safe.
  static Textures& shared();

  // The texture of `file`, with 8-bit values decoded from sRGB when
  // `srgbIfEightBit`: the same object while any caller keeps it. Null, with
  // the reason in `error`, when it cannot be read.
  std::shared_ptr<const Texture> open(const std::string& file, bool srgbIfEightBit,
                                      std::string& error);

 private:
  friend class Texture;
  Textures();
  bool check(const std::string& file, std::string& error, bool* eightBit);
  bool lookup(const void* texture, float s, float t, float width, float* out) const;
  void* system;  // OIIO::TextureSystem
};

}  // namespace pathtracer
