// How a surface scatters light: a diffuse base under a dielectric specular
// layer, a conductor and glass, mixed by `metallic` and `transmission`. The
// specular lobes are GGX microfacets, sampled by their visible normals;
// below kSmoothAlpha they are perfect mirrors and clear glass.
#pragma once

#include "Math.h"

namespace pathtracer {

class Texture;

struct Material {
  Vec3 albedo{0.18f, 0.18f, 0.18f};  // baseColor: diffuse, conductor and glass colour
  Vec3 emission;
  float roughness = 0.0f;  // microfacet alpha is its square; also Oren-Nayar's sigma
  float metallic = 0.0f;
  float specular = 0.0f;  // weight of the dielectric layer over the diffuse base
  float ior = 1.5f;
  float transmission = 0.0f;
  // Textures that replace the values above, or null; kept by the scene.
  const Texture* baseColorTexture = nullptr;  // linear (8-bit files decoded from sRGB)
  const Texture* roughnessTexture = nullptr;
  const Texture* metallicTexture = nullptr;
  const Texture* normalTexture = nullptr;  // tangent space, 0.5 0.5 1 is flat
  bool textured() const {
    return baseColorTexture || roughnessTexture || metallicTexture || normalTexture;
  }
};

constexpr float kSmoothAlpha = 1e-3f;

struct BsdfSample {
  Vec3 wi;       // unit, world space
  Vec3 weight;   // f |cos| / density
  Vec3 diffuseWeight;  // the diffuse base's part of it
  float pdf = 0;  // density of the lobes that light sampling also reaches
  // Made by a lobe that light sampling cannot reach (a mirror, glass
  // transmission): the light it finds counts in full.
  bool specular = false;
};

class Bsdf {
 public:
  // `n`: unit shading normal on the side of `wo`; `outside`: `wo` is on the
  // front of the surface (where its winding's normal points), for glass.
  Bsdf(const Material& m, const Vec3& n, const Vec3& wo, bool outside);

  // Whether light sampling can find anything: some lobe is not a delta.
  bool rough() const { return probability[kDiffuse] > 0 || alpha >= kSmoothAlpha; }
  // f |cos wi| toward unit `wi`, and the density with which sample() makes
  // wi. Glass transmission is not evaluated: only sample() finds it.
  // `diffuse`, when given, gets the diffuse base's part of the result.
  Vec3 evaluate(const Vec3& wi, float& pdf, Vec3* diffuse = nullptr) const;
  bool sample(float u0, float u1, float u2, BsdfSample& out) const;

 private:
  enum Lobe { kConductor, kLayer, kDiffuse, kGlass, kLobes };
  Vec3 local(const Vec3& w) const { return {dot(w, t), dot(w, b), dot(w, n)}; }
  Vec3 world(const Vec3& w) const { return t * w.x + b * w.y + n * w.z; }
  Vec3 evaluateLocal(const Vec3& wi, float& pdf, Vec3* diffuse) const;

  const Material& m;
  Vec3 n, t, b, wo;  // wo in the local frame
  float alpha, eta, layerFresnel;
  float lambdaO = 0;  // GGX's Lambda of wo, the same for every wi
  float weight[kLobes], probability[kLobes];
};

}  // namespace pathtracer
