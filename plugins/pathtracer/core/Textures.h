// Image textures, read through a texture system shared by the whole process:
// tiles are cached, levels of detail made on demand, a file read once however
// many materials use it.
#pragma once

#include <string>

namespace pathtracer {

class Textures {
 public:
  // The process's shared texture system; lookups are thread-safe.
  static Textures& shared();

  // What lookup() takes for `file`: the same for the same file.
  static const void* handle(const std::string& file);
  // Whether `file` can be read as a texture; `error` says why not.
  // `eightBit` tells whether it holds 8-bit values (sRGB-encoded colour, by
  // convention).
  bool check(const std::string& file, std::string& error, bool* eightBit = nullptr);
  // `channels` (1 or 3) values of a texture (from handle()) at (s, t), with t = 0 the top row,
  // filtered over a footprint of `width` in texture space (0: bilinear at
  // the finest level). An image of one channel gives it to all three.
  // False, with zeros in `out`, when it cannot be read.
  bool lookup(const void* texture, float s, float t, float width, int channels, float* out) const;

 private:
  Textures();
  void* system;  // OIIO::TextureSystem
};

}  // namespace pathtracer
