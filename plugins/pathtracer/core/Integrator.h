// Radiance along camera rays: a path tracer that samples the lights at every
// hit and weighs that against the lights its bounces find (multiple
// importance sampling); emitting surfaces are found by the bounces alone.
#pragma once

#include <cstdint>
#include <vector>

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

// What a camera sample adds to the outputs besides beauty (see OutputLayout).
struct PathOutputs {
  Vec3 diffuse;   // light whose first scattering was by the diffuse base
  Vec3 emission;  // emitting surfaces and lights the camera sees
  Vec3 albedo, normal;
  float depth = 0;  // along the view axis; 0 where nothing is hit
  Vec3 groups[kMaxLightGroups];
};

// For the benchmark that compares a pass with bare tracing of the very same
// rays: while set on a thread, the rays its paths trace beyond the camera's
// are appended here.
struct RayLog {
  std::vector<RTCRayHit> bounces;
  std::vector<RTCRay> shadows;
};
void setRayLog(RayLog* log);

// Radiance along the camera rays of a traced packet (see CameraRays), for
// paths of at most `maxDepth` segments, into out[i] for each lane i switched
// on in `valid`. Lane i's random numbers are seeded with pixels[i] and
// `sampleIndex`, and only when its path goes on past the camera ray's hit.
// `outputs`, when given, gets each lane's other outputs.
void packetRadiance(const RenderScene& scene, const RTCRayHit16& packet, const int* valid,
                    const uint32_t* pixels, uint32_t sampleIndex, int maxDepth, Vec3* out,
                    PathOutputs* outputs = nullptr);

// Adds a sample's outputs, besides beauty, into `pixel` laid out by `layout`.
void addOutputs(const OutputLayout& layout, const PathOutputs& o, const Vec3& beauty,
                float* pixel);

}  // namespace pathtracer
