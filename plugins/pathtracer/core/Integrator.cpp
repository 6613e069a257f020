#include "Integrator.h"

#include "Textures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace pathtracer {

namespace {

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

thread_local RayLog* rayLog = nullptr;

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
  if (rayLog) rayLog->bounces.push_back(rh);
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
  if (!shading.normals.empty()) {
    const unsigned* corner = &shading.triangles[3 * size_t(hit.primitive)];
    const Vec3 s = unpackDirection(shading.normals[corner[0]]) * (1 - hit.u - hit.v) +
                   unpackDirection(shading.normals[corner[1]]) * hit.u +
                   unpackDirection(shading.normals[corner[2]]) * hit.v;
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
  if (rayLog) rayLog->shadows.push_back(ray);
  rtcOccluded1(scene.geometry->scene, &context, &ray);
  return ray.tfar == -std::numeric_limits<float>::infinity();
}

Vec3 offset(const Vec3& p, const Vec3& n) {
  const float scale = 1 + std::max({std::fabs(p.x), std::fabs(p.y), std::fabs(p.z)});
  return p + n * (1e-4f * scale);
}

// The material at a hit with its textures looked up, and `n` turned by its
// normal map. Meshes without texture coordinates keep the plain values.
Material withTextures(const Material& plain, const MeshShading& shading, const Hit& hit,
                      float footprint, const Vec3& ng, Vec3& n) {
  Material m = plain;
  if (!shading.uvs) return m;
  const unsigned* corner = &shading.triangles[3 * size_t(hit.primitive)];
  const float* uv[3];
  for (int k = 0; k < 3; ++k) uv[k] = &(*shading.uvs)[2 * size_t(corner[k])];
  const float w = 1 - hit.u - hit.v;
  const float s = w * uv[0][0] + hit.u * uv[1][0] + hit.v * uv[2][0];
  const float t = 1 - (w * uv[0][1] + hit.u * uv[1][1] + hit.v * uv[2][1]);
  // How the position changes with u and with v across the triangle: for the
  // footprint and the normal map's frame only.
  Vec3 dpdu, dpdv;
  float width = 0;
  if (footprint > 0 || m.normalTexture) {
    Vec3 p[3];
    for (int k = 0; k < 3; ++k) {
      const float* point = &shading.points[3 * size_t(corner[k])];
      p[k] = Vec3(point[0], point[1], point[2]);
    }
    const Vec3 e1 = p[1] - p[0], e2 = p[2] - p[0];
    const float du1 = uv[1][0] - uv[0][0], dv1 = uv[1][1] - uv[0][1];
    const float du2 = uv[2][0] - uv[0][0], dv2 = uv[2][1] - uv[0][1];
    const float det = du1 * dv2 - du2 * dv1;
    const float r = std::fabs(det) > 1e-12f ? 1 / det : 0;
    dpdu = (e1 * dv2 - e2 * dv1) * r;
    dpdv = (e2 * du1 - e1 * du2) * r;
    const float scale = std::max(length(dpdu), length(dpdv));
    width = scale > 0 ? footprint / scale : 0;
  }
  float value[3];
  if (m.baseColorTexture && m.baseColorTexture->lookup(s, t, width, 3, value))
    m.albedo = Vec3(value[0], value[1], value[2]);
  if (m.roughnessTexture && m.roughnessTexture->lookup(s, t, width, 1, value))
    m.roughness = value[0];
  if (m.metallicTexture && m.metallicTexture->lookup(s, t, width, 1, value))
    m.metallic = value[0];
  if (m.normalTexture && m.normalTexture->lookup(s, t, width, 3, value)) {
    const Vec3 tangent = normalize(dpdu - n * dot(n, dpdu));
    // Bitangent along +v whichever side of the surface `n` is on.
    Vec3 bitangent = cross(n, tangent);
    if (dot(bitangent, dpdv) < 0) bitangent = -bitangent;
    const Vec3 mapped = normalize(tangent * (2 * value[0] - 1) + bitangent * (2 * value[1] - 1) +
                                  n * (2 * value[2] - 1));
    if (dot(mapped, ng) > 0 && dot(tangent, tangent) > 0) n = mapped;
  }
  return m;
}

float powerHeuristic(float a, float b) { return a * a / (a * a + b * b); }

// Where a ray from `origin` along unit `direction` meets the emitting side of
// `light` before `tfar`, or infinity.
float hitRect(const RectLight& light, const Vec3& origin, const Vec3& direction, float tfar) {
  const float facing = dot(direction, light.normal);
  if (facing >= 0) return std::numeric_limits<float>::infinity();
  const float t = dot(light.corner - origin, light.normal) / facing;
  if (t <= 0 || t >= tfar) return std::numeric_limits<float>::infinity();
  const Vec3 q = origin + direction * t - light.corner;
  const float s = dot(q, light.edgeU) / dot(light.edgeU, light.edgeU);
  const float r = dot(q, light.edgeV) / dot(light.edgeV, light.edgeV);
  return s >= 0 && s <= 1 && r >= 0 && r <= 1 ? t : std::numeric_limits<float>::infinity();
}

// The weight of light found by a bounce of density `bsdfPdf` that light
// sampling of density `lightPdf` could also have found.
float bounceWeight(const RenderScene& scene, const BsdfSample& s, float lightPdf) {
  if (s.specular) return 1;
  switch (scene.lightSampling) {
    case LightSampling::kLightsOnly: return 0;
    case LightSampling::kBsdfOnly: return 1;
    default: return powerHeuristic(s.pdf, lightPdf);
  }
}

// What a path adds up: its radiance and, when outputs are asked for, how it
// splits by the first hit's diffuse base and by light group.
struct Tally {
  Vec3 beauty;
  PathOutputs* outputs = nullptr;
  Vec3 throughput{1, 1, 1};
  // After the first bounce: the diffuse base's share of each channel of
  // the throughput; at the first hit, shares come with each light sample.
  Vec3 diffuseShare;
  bool firstHit = true;

  // `amount` arrives before the throughput; `diffuse` is its diffuse part
  // at the first hit.
  void add(const Vec3& amount, const Vec3& diffuse, int group) {
    const Vec3 added = throughput * amount;
    beauty += added;
    if (!outputs) return;
    outputs->diffuse += firstHit ? diffuse : diffuseShare * added;
    if (group >= 0) outputs->groups[group] += added;
  }
};

Vec3 share(const Vec3& part, const Vec3& whole) {
  return {whole.x > 0 ? part.x / whole.x : 0, whole.y > 0 ? part.y / whole.y : 0,
          whole.z > 0 ? part.z / whole.z : 0};
}

// Light arriving at `p` directly from every light that can be sampled (one
// sample each), times the surface's response, weighted against finding the
// same light by a bounce.
void directLight(const RenderScene& scene, const Vec3& p, const Vec3& ng, const Bsdf& bsdf,
                 Random& random, Tally& tally) {
  const bool weighLights = scene.lightSampling == LightSampling::kBoth;
  const bool split = tally.outputs && tally.firstHit;
  // `lightPdf` 0: a delta light, which only light sampling finds.
  auto add = [&](const Vec3& toLight, float distance, const Vec3& arriving, float lightPdf,
                 int group) {
    if (arriving.isBlack() || dot(toLight, ng) <= 0) return;
    float bsdfPdf;
    Vec3 diffuse;
    const Vec3 f = bsdf.evaluate(toLight, bsdfPdf, split ? &diffuse : nullptr);
    if (f.isBlack()) return;
    if (occluded(scene, p, toLight, distance)) return;
    const float w = lightPdf > 0 && weighLights ? powerHeuristic(lightPdf, bsdfPdf) : 1;
    tally.add(f * arriving * w, diffuse * arriving * w, group);
  };
  for (const PointLight& light : scene.pointLights) {
    const Vec3 d = light.position - p;
    const float r2 = dot(d, d);
    if (r2 <= 0) continue;
    const float r = std::sqrt(r2);
    const Vec3 toLight = d * (1 / r);
    // A spot light fades from its inner cone to its outer one.
    float cone = 1;
    const float c = -dot(toLight, light.axis);
    if (c < light.cosInner) {
      const float band = light.cosInner - light.cosOuter;
      const float x = band > 0 ? std::clamp((c - light.cosOuter) / band, 0.0f, 1.0f) : 0.0f;
      cone = x * x * (3 - 2 * x);
    }
    if (cone > 0) add(toLight, r * 0.9999f, light.intensity * (cone / r2), 0, light.group);
  }
  for (const DistantLight& light : scene.distantLights)
    add(light.towardLight, std::numeric_limits<float>::infinity(), light.irradiance, 0,
        light.group);
  if (scene.lightSampling == LightSampling::kBsdfOnly || !bsdf.rough()) return;
  for (const RectLight& light : scene.rectLights) {
    const Vec3 q = light.corner + light.edgeU * random.next() + light.edgeV * random.next();
    const Vec3 d = q - p;
    const float r2 = dot(d, d);
    if (r2 <= 0) continue;
    const float r = std::sqrt(r2);
    const Vec3 toLight = d * (1 / r);
    const float cosLight = -dot(light.normal, toLight);
    if (cosLight <= 0) continue;
    const float pdf = r2 / (cosLight * light.area);
    add(toLight, r * 0.9999f, light.radiance * (1 / pdf), pdf, light.group);
  }
  // A uniform dome is found as well by the bounces alone, at no shadow ray's cost.
  if (scene.dome.active() && scene.dome.hasImage()) {
    float pdf;
    Vec3 arriving;
    const float u1 = random.next(), u2 = random.next(), u3 = random.next();
    const Vec3 wi = scene.dome.sample(u1, u2, u3, ng, pdf, &arriving);
    if (pdf > 0)
      add(wi, std::numeric_limits<float>::infinity(), arriving * (1 / pdf), pdf, scene.domeGroup);
  }
}

}  // namespace

void setRayLog(RayLog* log) { rayLog = log; }

Random::Random(uint32_t pixel, uint32_t sample)
    : state(mix((uint64_t(pixel) << 32) ^ sample ^ 0x9e3779b97f4a7c15ULL)) {}

namespace {

// Light leaving the found `hit` back along unit `direction`, beyond the
// hit's own emission: the light arriving directly at each of at most
// `segments` hits (the one that made `hit` counted), whatever kind of light
// it comes from, and the paths bounced on between them.
void scattered(const RenderScene& scene, Vec3 origin, Vec3 direction, Hit hit, Random& random,
               int segments, Tally& tally) {
  // Rectangles and the dome are found by bounces too, and emitting surfaces
  // only so: the last hit needs a bounce only when there are some.
  const bool foundLights = scene.dome.active() || scene.hasEmitters || !scene.rectLights.empty();
  for (int depth = 1;; ++depth) {
    const bool last = depth == segments;
    const Vec3 wo = -direction;
    Vec3 ng, n;
    facingNormals(scene, hit, wo, ng, n);
    const Vec3 at = origin + direction * hit.distance;
    const Vec3 p = offset(at, ng);
    Material textured;
    const Material* own = &scene.materials[hit.geometry];
    if (own->textured()) {
      // The camera's pixel at the first hit picks the texture's level of detail.
      const float footprint =
          depth == 1 ? scene.footprintAt0 + scene.footprintPerDistance * hit.distance : 0;
      textured = withTextures(*own, scene.geometry->meshes[hit.geometry], hit, footprint, ng, n);
      own = &textured;
    }
    const Material& material = *own;
    const Bsdf bsdf(material, n, wo, dot(hit.rawNormal, wo) > 0);
    if (tally.outputs && depth == 1) {
      tally.outputs->albedo = material.albedo;
      tally.outputs->normal = n;
    }
    directLight(scene, p, ng, bsdf, random, tally);
    if (last && !foundLights) break;

    BsdfSample s;
    const float u0 = random.next(), u1 = random.next(), u2 = random.next();
    if (!bsdf.sample(u0, u1, u2, s)) break;
    // Through glass the path goes on from the far side.
    const bool through = dot(s.wi, ng) < 0;
    if (through != (dot(s.wi, n) < 0)) break;  // below the geometry, by the shading normal
    if (tally.firstHit) tally.diffuseShare = share(s.diffuseWeight, s.weight);
    tally.firstHit = false;
    tally.throughput *= s.weight;
    if (tally.throughput.isBlack()) break;
    origin = through ? offset(at, -ng) : p;
    direction = s.wi;
    hit = intersectRay(scene, origin, direction, 0, std::numeric_limits<float>::infinity());
    const float tfar = hit.found ? hit.distance : std::numeric_limits<float>::infinity();
    for (const RectLight& light : scene.rectLights) {
      const float t = hitRect(light, origin, direction, tfar);
      if (t == std::numeric_limits<float>::infinity()) continue;
      const float lightPdf = t * t / (-dot(light.normal, direction) * light.area);
      tally.add(light.radiance * bounceWeight(scene, s, lightPdf), Vec3(), light.group);
    }
    if (!hit.found) {
      if (scene.dome.active()) {
        float lightPdf;
        const Vec3 arriving = scene.dome.radianceAndPdf(direction, ng, lightPdf);
        tally.add(arriving * bounceWeight(scene, s, lightPdf), Vec3(), scene.domeGroup);
      }
      break;
    }
    tally.add(scene.materials[hit.geometry].emission, Vec3(), -1);
    if (last) break;
  }
}

// What the camera sees where its ray leaves the scene, or passes a
// rectangle light before `tfar`; `group` gets the light's group.
Vec3 seenLights(const RenderScene& scene, const Vec3& origin, const Vec3& direction, float tfar,
                int& group) {
  Vec3 seen;
  float nearest = tfar;
  group = -1;
  for (const RectLight& light : scene.rectLights) {
    const float t = light.cameraVisible ? hitRect(light, origin, direction, nearest) : nearest;
    if (t < nearest) {
      nearest = t;
      seen = light.radiance;
      group = light.group;
    }
  }
  if (nearest == std::numeric_limits<float>::infinity() && scene.dome.cameraVisible) {
    seen = scene.dome.radiance(direction);
    group = scene.domeGroup;
  }
  return seen;
}

}  // namespace

void packetRadiance(const RenderScene& scene, const RTCRayHit16& packet, const int* valid,
                    const uint32_t* pixels, uint32_t sampleIndex, int maxDepth, Vec3* out,
                    PathOutputs* outputs) {
  const bool anyLight = !scene.pointLights.empty() || !scene.distantLights.empty() ||
                        !scene.rectLights.empty() || scene.dome.active() || scene.hasEmitters;
  bool seenRects = false;
  for (const RectLight& light : scene.rectLights) seenRects |= light.cameraVisible;
  for (int i = 0; i < kPacket; ++i) {
    if (!valid[i]) continue;
    PathOutputs* o = outputs ? &outputs[i] : nullptr;
    if (o) *o = PathOutputs();
    const unsigned geometry = packet.hit.geomID[i];
    const Vec3 origin(packet.ray.org_x[i], packet.ray.org_y[i], packet.ray.org_z[i]);
    const Vec3 toward(packet.ray.dir_x[i], packet.ray.dir_y[i], packet.ray.dir_z[i]);
    const bool missed = geometry == RTC_INVALID_GEOMETRY_ID;
    out[i] = Vec3();
    if (seenRects || (missed && scene.dome.active() && scene.dome.cameraVisible)) {
      const float length = pathtracer::length(toward);
      int group;
      out[i] = seenLights(scene, origin, toward * (1 / length),
                          missed ? std::numeric_limits<float>::infinity()
                                 : packet.ray.tfar[i] * length,
                          group);
      if (o && group >= 0) o->groups[group] = out[i];
    }
    if (missed) {
      if (o) o->emission = out[i];
      continue;
    }
    out[i] += scene.materials[geometry].emission;
    if (o) {
      o->emission = out[i];
      o->depth = packet.ray.tfar[i];  // directions have unit depth along the view
    }
    if (!anyLight) continue;
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
    Tally tally;
    tally.outputs = o;
    scattered(scene, origin, toward * (1 / length), hit, random, maxDepth, tally);
    out[i] += tally.beauty;
  }
}

void addOutputs(const OutputLayout& layout, const PathOutputs& o, const Vec3& beauty,
                float* pixel) {
  auto put = [&](int offset, const Vec3& v) {
    if (offset < 0) return;
    pixel[offset] += v.x; pixel[offset + 1] += v.y; pixel[offset + 2] += v.z;
  };
  put(layout.diffuse, o.diffuse);
  // The rest of the light, so that the three add up to beauty.
  put(layout.specular, beauty - o.emission - o.diffuse);
  put(layout.emission, o.emission);
  put(layout.albedo, o.albedo);
  put(layout.normal, o.normal);
  if (layout.depth >= 0) pixel[layout.depth] += o.depth;
  if (layout.groups >= 0)
    for (int g = 0; layout.groups + 3 * g + 2 < layout.channels; ++g)
      put(layout.groups + 3 * g, o.groups[g]);
}

}  // namespace pathtracer
