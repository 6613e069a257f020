#include "Integrator.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace pathtracer {

namespace {

constexpr float kInvPi = float(1.0 / M_PI);

// What a ray met, kept raw: normals are only worked out for hits that are
// shaded.
struct Hit {
  bool found = false;
  float distance = 0;
  Vec3 rawNormal;  // geometric, not unit length
  unsigned geometry = 0, primitive = 0;
  float u = 0, v = 0;
};

uint64_t mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

void fillRay(RTCRay& ray, const Vec3& origin, const Vec3& direction, float tnear, float tfar) {
  ray.org_x = origin.x; ray.org_y = origin.y; ray.org_z = origin.z;
  ray.dir_x = direction.x; ray.dir_y = direction.y; ray.dir_z = direction.z;
  ray.tnear = tnear;
  ray.tfar = tfar;
  ray.time = 0;
  ray.mask = 0xffffffffu;
  ray.id = 0;
  ray.flags = 0;
}

Hit intersectRay(const RenderScene& scene, const Vec3& origin, const Vec3& direction,
                 float tnear, float tfar) {
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  RTCRayHit rh;
  fillRay(rh.ray, origin, direction, tnear, tfar);
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
  rtcIntersect1(scene.geometry->scene, &context, &rh);
  Hit hit;
  if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) return hit;
  hit.found = true;
  hit.distance = rh.ray.tfar;
  hit.rawNormal = Vec3(rh.hit.Ng_x, rh.hit.Ng_y, rh.hit.Ng_z);
  hit.geometry = rh.hit.geomID;
  hit.primitive = rh.hit.primID;
  hit.u = rh.hit.u;
  hit.v = rh.hit.v;
  return hit;
}

// Unit geometric and interpolated shading normals, both facing `wo`.
void facingNormals(const RenderScene& scene, const Hit& hit, const Vec3& wo, Vec3& ng, Vec3& n) {
  ng = normalize(hit.rawNormal);
  n = ng;
  const MeshShading& shading = scene.geometry->meshes[hit.geometry];
  if (!shading.cornerNormals.empty()) {
    const Vec3* corner = &shading.cornerNormals[3 * size_t(hit.primitive)];
    const Vec3 s = corner[0] * (1 - hit.u - hit.v) + corner[1] * hit.u + corner[2] * hit.v;
    if (dot(s, s) > 0) n = normalize(s);
  }
  if (dot(ng, wo) < 0) ng = -ng;
  if (dot(n, ng) < 0) n = -n;
}

bool occluded(const RenderScene& scene, const Vec3& origin, const Vec3& direction, float tfar) {
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  RTCRay ray;
  fillRay(ray, origin, direction, 0, tfar);
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

namespace {

// Light leaving the found `hit` back along unit `direction`, beyond the
// hit's own emission: the light arriving directly at each of at most
// `segments` hits (the one that made `hit` counted), whatever kind of light
// it comes from, and the paths bounced on between them.
Vec3 scattered(const RenderScene& scene, Vec3 origin, Vec3 direction, Hit hit, Random& random,
               int segments, bool sampledLights) {
  // The dome and emitting surfaces are found by a bounce, which the last hit
  // needs only when there are some.
  const bool foundLights = !scene.dome.isBlack() || scene.hasEmitters;
  Vec3 result, throughput(1, 1, 1);
  for (int depth = 1;; ++depth) {
    const Material& m = scene.materials[hit.geometry];
    const bool last = depth == segments;
    // A last hit with no light to find adds nothing more: skip its normals.
    if (last && !sampledLights && !foundLights) break;
    const Vec3 wo = -direction;
    Vec3 ng, n;
    facingNormals(scene, hit, wo, ng, n);
    const Vec3 p = offset(origin + direction * hit.distance, ng);
    if (sampledLights) result += throughput * directLight(scene, p, n, wo, m, random);
    if (last && !foundLights) break;

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
    hit = intersectRay(scene, origin, direction, 0, std::numeric_limits<float>::infinity());
    if (!hit.found) {
      result += throughput * scene.dome;
      break;
    }
    result += throughput * scene.materials[hit.geometry].emission;
    if (last) break;
  }
  return result;
}

}  // namespace

void packetRadiance(const RenderScene& scene, const RTCRayHit16& packet, const int* valid,
                    const uint32_t* pixels, uint32_t sampleIndex, int maxDepth, Vec3* out) {
  const bool sampledLights = !scene.pointLights.empty() || !scene.distantLights.empty() ||
                             !scene.rectLights.empty();
  const bool onlyFirstHits =
      maxDepth <= 1 && !sampledLights && scene.dome.isBlack() && !scene.hasEmitters;
  for (int i = 0; i < kPacket; ++i) {
    if (!valid[i]) continue;
    const unsigned geometry = packet.hit.geomID[i];
    if (geometry == RTC_INVALID_GEOMETRY_ID) {
      out[i] = scene.dome;
      continue;
    }
    out[i] = scene.materials[geometry].emission;
    if (onlyFirstHits) continue;
    const Vec3 origin(packet.ray.org_x[i], packet.ray.org_y[i], packet.ray.org_z[i]);
    const Vec3 toward(packet.ray.dir_x[i], packet.ray.dir_y[i], packet.ray.dir_z[i]);
    const float length = pathtracer::length(toward);
    Hit hit;
    hit.found = true;
    hit.distance = packet.ray.tfar[i] * length;
    hit.rawNormal = Vec3(packet.hit.Ng_x[i], packet.hit.Ng_y[i], packet.hit.Ng_z[i]);
    hit.geometry = geometry;
    hit.primitive = packet.hit.primID[i];
    hit.u = packet.hit.u[i];
    hit.v = packet.hit.v[i];
    Random random(pixels[i], sampleIndex);
    out[i] += scattered(scene, origin, toward * (1 / length), hit, random, maxDepth,
                        sampledLights);
  }
}

}  // namespace pathtracer
