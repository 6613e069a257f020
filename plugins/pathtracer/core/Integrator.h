// Radiance along camera rays: a path tracer that samples the lights at every
// hit and weighs that against the lights its bounces find (multiple
// importance sampling); emitting surfaces are found by the bounces alone.
#pragma once

#include <cstdint>

#include "CameraRays.h"
#include "Math.h"
#include "RenderScene.h"

namespace pathtracer {

// Small, fast generator with a seed per pixel and sample, so passes are
// reproducible whatever thread runs them.
class Random {
 public:
  Random(uint32_t pixel, uint32_t sample);
  // [0, 1). A linear congruential step with a permuted output: cheap, and
  // good enough for the few dimensions one path uses.
  float next() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    const uint32_t rotated = uint32_t(((state >> 18) ^ state) >> 27);
    const uint32_t rotation = uint32_t(state >> 59);
    const uint32_t bits = (rotated >> rotation) | (rotated << ((32 - rotation) & 31));
    return float(bits >> 8) * (1.0f / 16777216.0f);
  }

 private:
  uint64_t state;
};

// Radiance along the camera rays of a traced packet (see CameraRays), for
// paths of at most `maxDepth` segments, into out[i] for each lane i switched
// on in `valid`. Lane i's random numbers are seeded with pixels[i] and
// `sampleIndex`, and only when its path goes on past the camera ray's hit.
void packetRadiance(const RenderScene& scene, const RTCRayHit16& packet, const int* valid,
                    const uint32_t* pixels, uint32_t sampleIndex, int maxDepth, Vec3* out);

}  // namespace pathtracer
