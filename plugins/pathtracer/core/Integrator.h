// Radiance along camera rays: a path tracer with next-event estimation for
// point, distant and rectangle lights, and the dome and emissive surfaces
// found by the paths themselves.
#pragma once

#include <cstdint>

#include "Math.h"
#include "RenderScene.h"

namespace pathtracer {

// Small, fast generator with a seed per pixel and sample, so passes are
// reproducible whatever thread runs them.
class Random {
 public:
  Random(uint32_t pixel, uint32_t sample);
  float next();  // [0, 1)

 private:
  uint64_t state;
};

struct CameraRay {
  Vec3 origin, direction;  // direction unit length
  float tnear = 0, tfar = 1e30f;
};

// The ray through image position (x, y) in pixels, (0, 0) the top left corner.
CameraRay cameraRay(const RenderScene& scene, float x, float y);

Vec3 radiance(const RenderScene& scene, const CameraRay& ray, Random& random);

}  // namespace pathtracer
