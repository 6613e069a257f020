// The light from every direction that escapes the scene: uniform, or a
// lat-long image turned by the dome's transform, sampled in proportion to
// its brightness.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Math.h"

namespace pathtracer {

class DomeLight {
 public:
  // An entry of an alias table: one draw, whatever the count.
  struct Alias {
    float keep;      // the chance of keeping the drawn entry
    uint32_t other;  // the entry taken otherwise
  };

  // Reads a lat-long image (EXR, HDR, anything OpenImageIO reads). False,
  // with the reason in `error`, when it cannot be read.
  bool loadImage(const std::string& path, std::string& error);
  // Takes `other`'s image, read before, if it is of `path`.
  bool reuseImage(const DomeLight& other, const std::string& path);
  void setTransform(const Transform& toWorld);

  Vec3 color;  // uniform radiance, or the image's scale
  bool cameraVisible = true;
  bool uniformSampling = false;  // for measurements: ignore the image's brightness

  bool active() const { return !color.isBlack(); }
  bool hasImage() const { return image != nullptr; }
  // Radiance arriving from unit world direction `toward` (pointing away
  // from the receiver).
  Vec3 radiance(const Vec3& toward) const;
  // A direction to sample for a receiver with unit normal `n` (from three
  // uniform numbers in [0, 1), multiples of 2^-24), and its
  // solid-angle density; pdf() is the same density for any direction, 0
  // for a uniform dome, which bounces find as well as sampling would.
  // `radiance`, when given, gets radiance() of the direction.
  Vec3 sample(float u1, float u2, float u3, const Vec3& n, float& pdf, Vec3* radiance = nullptr) const;
  float pdf(const Vec3& toward, const Vec3& n) const;
  // radiance() and pdf() at once, for one look-up of the image.
  Vec3 radianceAndPdf(const Vec3& toward, const Vec3& n, float& pdf) const;

 private:
  int texelOf(const Vec3& toward, float* sinTheta) const;
  // What a direction reads, together in 16 bytes: one memory access.
  struct Texel {
    float rgb[3];
    // Its probability times the texel count over 2 pi^2: the solid-angle
    // density there once divided by sin(theta).
    float density;
  };
  struct Image {
    std::string path;
    int width = 0, height = 0;
    std::vector<Texel> texels;  // row 0 at the top (+Y)
    std::vector<Alias> rowAlias;     // height entries
    std::vector<Alias> columnAlias;  // width per row; `other` within the row
  };
  std::shared_ptr<const Image> image;  // shared with the scene it was rebuilt from
  // The transform's linear part and its inverse, in floats: turned at
  // every look-up.
  struct Turn {
    float m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    Vec3 operator()(const Vec3& v) const {
      return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
              m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
              m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }
  };
  Turn toWorld, toLocal;
};

}  // namespace pathtracer
