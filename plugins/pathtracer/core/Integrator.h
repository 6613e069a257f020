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
  Random() : state(0) {}
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

// What a ray met, kept raw: normals are only worked out for hits that are
// shaded, so cheap passes skip them.
struct Hit {
  bool found = false;
  float distance = 0;
  Vec3 rawNormal;  // geometric, not unit length
  unsigned geometry = 0, primitive = 0;
  float u = 0, v = 0;
};

Hit intersect(const RenderScene& scene, const CameraRay& ray);

// Up to kPacket camera rays traced together: coherent rays share the walk
// down the acceleration structure.
constexpr int kPacket = 16;
void intersectPacket(const RenderScene& scene, const CameraRay* rays, int count, Hit* hits);

// Radiance along a camera ray whose first hit is already known, for paths
// of at most `maxDepth` segments.
Vec3 radiance(const RenderScene& scene, const CameraRay& ray, const Hit& first, Random& random,
              int maxDepth);

}  // namespace pathtracer
