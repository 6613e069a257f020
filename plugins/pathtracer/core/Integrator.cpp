#include "Integrator.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace pathtracer {

namespace {

constexpr float kInvPi = float(1.0 / M_PI);

uint64_t mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

struct Hit {
  bool found = false;
  Vec3 point, geometricNormal, shadingNormal;
  unsigned geometry = 0;
};

Hit intersect(const RenderScene& scene, const Vec3& origin, const Vec3& direction, float tnear,
              float tfar) {
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  RTCRayHit rh;
  rh.ray.org_x = origin.x; rh.ray.org_y = origin.y; rh.ray.org_z = origin.z;
  rh.ray.dir_x = direction.x; rh.ray.dir_y = direction.y; rh.ray.dir_z = direction.z;
  rh.ray.tnear = tnear;
  rh.ray.tfar = tfar;
  rh.ray.time = 0;
  rh.ray.mask = 0xffffffffu;
  rh.ray.id = 0;
  rh.ray.flags = 0;
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
  rtcIntersect1(scene.geometry->scene, &context, &rh);
  Hit hit;
  if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) return hit;
  hit.found = true;
  hit.geometry = rh.hit.geomID;
  hit.point = origin + direction * rh.ray.tfar;
  hit.geometricNormal = normalize(Vec3(rh.hit.Ng_x, rh.hit.Ng_y, rh.hit.Ng_z));
  hit.shadingNormal = hit.geometricNormal;
  const MeshShading& shading = scene.geometry->meshes[rh.hit.geomID];
  if (!shading.cornerNormals.empty()) {
    const Vec3* corner = &shading.cornerNormals[3 * size_t(rh.hit.primID)];
    const float u = rh.hit.u, v = rh.hit.v;
    const Vec3 n = corner[0] * (1 - u - v) + corner[1] * u + corner[2] * v;
    if (dot(n, n) > 0) hit.shadingNormal = normalize(n);
  }
  return hit;
}

bool occluded(const RenderScene& scene, const Vec3& origin, const Vec3& direction, float tfar) {
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  RTCRay ray;
  ray.org_x = origin.x; ray.org_y = origin.y; ray.org_z = origin.z;
  ray.dir_x = direction.x; ray.dir_y = direction.y; ray.dir_z = direction.z;
  ray.tnear = 0;
  ray.tfar = tfar;
  ray.time = 0;
  ray.mask = 0xffffffffu;
  ray.id = 0;
  ray.flags = 0;
  rtcOccluded1(scene.geometry->scene, &context, &ray);
  return ray.tfar == -std::numeric_limits<float>::infinity();
}

// Oren-Nayar's qualitative model relative to Lambert (1 for roughness 0).
float roughnessFactor(float sigma, const Vec3& n, const Vec3& wo, const Vec3& wi) {
  if (sigma <= 0) return 1.0f;
  const float s2 = sigma * sigma;
  const float a = 1.0f - 0.5f * s2 / (s2 + 0.33f);
  const float b = 0.45f * s2 / (s2 + 0.09f);
  const float cosI = std::clamp(dot(n, wi), 0.0f, 1.0f), cosO = std::clamp(dot(n, wo), 0.0f, 1.0f);
  const float sinI = std::sqrt(1 - cosI * cosI), sinO = std::sqrt(1 - cosO * cosO);
  float cosPhi = 0;
  if (sinI > 1e-4f && sinO > 1e-4f)
    cosPhi = std::max(0.0f, dot(normalize(wi - n * cosI), normalize(wo - n * cosO)));
  const float sinAlpha = std::max(sinI, sinO);
  const float tanBeta = std::min(sinI / std::max(cosI, 1e-4f), sinO / std::max(cosO, 1e-4f));
  return a + b * cosPhi * sinAlpha * tanBeta;
}

// Light arriving at `p` directly from the point, distant and rectangle
// lights, times the surface's response toward `wo`.
Vec3 directLight(const RenderScene& scene, const Vec3& p, const Vec3& n, const Vec3& wo,
                 const Material& m, Random& random) {
  Vec3 sum;
  auto add = [&](const Vec3& toLight, float distance, const Vec3& irradiance) {
    const float cosine = dot(n, toLight);
    if (cosine <= 0 || irradiance.isBlack()) return;
    if (occluded(scene, p, toLight, distance)) return;
    sum += irradiance * (cosine * roughnessFactor(m.roughness, n, wo, toLight));
  };
  for (const PointLight& light : scene.pointLights) {
    const Vec3 d = light.position - p;
    const float r2 = dot(d, d);
    if (r2 <= 0) continue;
    const float r = std::sqrt(r2);
    add(d * (1 / r), r * 0.9999f, light.intensity * (1 / r2));
  }
  for (const DistantLight& light : scene.distantLights)
    add(light.towardLight, std::numeric_limits<float>::infinity(), light.irradiance);
  for (const RectLight& light : scene.rectLights) {
    const Vec3 q = light.corner + light.edgeU * random.next() + light.edgeV * random.next();
    const Vec3 d = q - p;
    const float r2 = dot(d, d);
    if (r2 <= 0) continue;
    const float r = std::sqrt(r2);
    const Vec3 toLight = d * (1 / r);
    const float cosLight = -dot(light.normal, toLight);
    if (cosLight <= 0) continue;
    add(toLight, r * 0.9999f, light.radiance * (cosLight * light.area / r2));
  }
  return sum * m.albedo * kInvPi;
}

Vec3 offset(const Vec3& p, const Vec3& n) {
  const float scale = 1 + std::max({std::fabs(p.x), std::fabs(p.y), std::fabs(p.z)});
  return p + n * (1e-4f * scale);
}

}  // namespace

Random::Random(uint32_t pixel, uint32_t sample)
    : state(mix((uint64_t(pixel) << 32) ^ sample ^ 0x9e3779b97f4a7c15ULL)) {}

float Random::next() {
  // A linear congruential step with a permuted output: cheap, and good
  // enough for the few dimensions one path uses.
  state = state * 6364136223846793005ULL + 1442695040888963407ULL;
  const uint32_t rotated = uint32_t(((state >> 18) ^ state) >> 27);
  const uint32_t rotation = uint32_t(state >> 59);
  const uint32_t bits = (rotated >> rotation) | (rotated << ((32 - rotation) & 31));
  return float(bits >> 8) * (1.0f / 16777216.0f);
}

CameraRay cameraRay(const RenderScene& scene, float x, float y) {
  const Camera& c = scene.camera;
  const float w = float(scene.settings.width), h = float(scene.settings.height);
  const float shorter = std::min(w, h);
  // Image plane position, the shorter side spanning [-1, 1].
  const float sx = (2 * x - w) / shorter, sy = (h - 2 * y) / shorter;
  CameraRay ray;
  if (c.orthographic) {
    const float half = c.orthographicWidth / 2;
    ray.origin = c.toWorld.point(Vec3(sx * half, sy * half, 0));
    ray.direction = normalize(c.toWorld.vector(Vec3(0, 0, -1)));
    ray.tnear = c.nearClip;
    ray.tfar = c.farClip;
    return ray;
  }
  const Vec3 d = c.right * (sx * c.tanHalfFov) + c.up * (sy * c.tanHalfFov) - c.forward;
  const float len = length(d);
  ray.origin = c.position;
  ray.direction = d * (1 / len);
  // Clipping distances count along the view axis.
  ray.tnear = c.nearClip * len;
  ray.tfar = c.farClip * len;
  return ray;
}

Vec3 radiance(const RenderScene& scene, const CameraRay& cameraRay, Random& random) {
  Vec3 result, throughput(1, 1, 1);
  Vec3 origin = cameraRay.origin, direction = cameraRay.direction;
  float tnear = cameraRay.tnear, tfar = cameraRay.tfar;
  for (int depth = 0; depth < scene.settings.maxDepth; ++depth) {
    const Hit hit = intersect(scene, origin, direction, tnear, tfar);
    if (!hit.found) {
      result += throughput * scene.dome;
      break;
    }
    const Material& m = scene.materials[hit.geometry];
    result += throughput * m.emission;
    const Vec3 wo = -direction;
    // Shade the side the ray came from.
    Vec3 ng = hit.geometricNormal, n = hit.shadingNormal;
    if (dot(ng, wo) < 0) ng = -ng;
    if (dot(n, ng) < 0) n = -n;
    const Vec3 p = offset(hit.point, ng);
    result += throughput * directLight(scene, p, n, wo, m, random);
    if (depth + 1 == scene.settings.maxDepth) break;

    // Cosine-weighted bounce: the Lambert term and the density cancel.
    const float u1 = random.next(), u2 = random.next();
    const float r = std::sqrt(u1), phi = 2 * float(M_PI) * u2;
    Vec3 t, b;
    makeBasis(n, t, b);
    const Vec3 wi = normalize(t * (r * std::cos(phi)) + b * (r * std::sin(phi)) +
                              n * std::sqrt(std::max(0.0f, 1 - u1)));
    if (dot(wi, ng) <= 0) break;
    throughput *= m.albedo * roughnessFactor(m.roughness, n, wo, wi);
    if (throughput.isBlack()) break;
    origin = p;
    direction = wi;
    tnear = 0;
    tfar = std::numeric_limits<float>::infinity();
  }
  return result;
}

}  // namespace pathtracer
