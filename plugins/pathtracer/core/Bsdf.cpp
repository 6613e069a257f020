#include "Bsdf.h"

#include <algorithm>
#include <cmath>

namespace pathtracer {

namespace {

constexpr float kPi = float(M_PI);

float ggxD(float a2, const Vec3& h) {
  const float d = h.z * h.z * (a2 - 1) + 1;
  return a2 / (kPi * d * d);
}

float ggxLambda(float a2, const Vec3& w) {
  const float c2 = w.z * w.z;
  if (c2 >= 1) return 0;
  return 0.5f * (std::sqrt(1 + a2 * (1 - c2) / c2) - 1);
}

// A microfacet normal seen from `wo` (upper hemisphere), with density
// G1(wo) max(0, wo.h) D(h) / wo.z.
Vec3 sampleVisibleNormal(float alpha, const Vec3& wo, float u1, float u2) {
  const Vec3 v = normalize(Vec3(alpha * wo.x, alpha * wo.y, wo.z));
  const float lensq = v.x * v.x + v.y * v.y;
  const Vec3 t1 = lensq > 0 ? Vec3(-v.y, v.x, 0) * (1 / std::sqrt(lensq)) : Vec3(1, 0, 0);
  const Vec3 t2 = cross(v, t1);
  const float r = std::sqrt(u1), phi = 2 * kPi * u2;
  const float p1 = r * std::cos(phi);
  const float s = 0.5f * (1 + v.z);
  const float p2 = (1 - s) * std::sqrt(std::max(0.0f, 1 - p1 * p1)) + s * r * std::sin(phi);
  const Vec3 nh = t1 * p1 + t2 * p2 + v * std::sqrt(std::max(0.0f, 1 - p1 * p1 - p2 * p2));
  return normalize(Vec3(alpha * nh.x, alpha * nh.y, std::max(1e-6f, nh.z)));
}

// Unpolarised reflectance of a dielectric boundary; `eta` is the index on
// the far side over the near side's, cosI > 0.
float fresnelDielectric(float cosI, float eta) {
  const float sin2T = (1 - cosI * cosI) / (eta * eta);
  if (sin2T >= 1) return 1;
  const float cosT = std::sqrt(1 - sin2T);
  const float rs = (cosI - eta * cosT) / (cosI + eta * cosT);
  const float rp = (eta * cosI - cosT) / (eta * cosI + cosT);
  return 0.5f * (rs * rs + rp * rp);
}

Vec3 schlick(const Vec3& f0, float c) {
  const float m = 1 - std::clamp(c, 0.0f, 1.0f), m2 = m * m;
  const float k = m2 * m2 * m;
  return f0 + (Vec3(1, 1, 1) - f0) * k;
}

Vec3 reflect(const Vec3& w, const Vec3& h) { return h * (2 * dot(w, h)) - w; }

// Oren-Nayar's qualitative model relative to Lambert (1 for sigma 0).
float orenNayar(float sigma, const Vec3& wo, const Vec3& wi) {
  if (sigma <= 0) return 1.0f;
  const float s2 = sigma * sigma;
  const float a = 1.0f - 0.5f * s2 / (s2 + 0.33f);
  const float bb = 0.45f * s2 / (s2 + 0.09f);
  const float cosI = std::clamp(wi.z, 0.0f, 1.0f), cosO = std::clamp(wo.z, 0.0f, 1.0f);
  const float sinI = std::sqrt(1 - cosI * cosI), sinO = std::sqrt(1 - cosO * cosO);
  float cosPhi = 0;
  if (sinI > 1e-4f && sinO > 1e-4f)
    cosPhi = std::max(0.0f, (wi.x * wo.x + wi.y * wo.y) / (sinI * sinO));
  const float sinAlpha = std::max(sinI, sinO);
  const float tanBeta = std::min(sinI / std::max(cosI, 1e-4f), sinO / std::max(cosO, 1e-4f));
  return a + bb * cosPhi * sinAlpha * tanBeta;
}

float mean(const Vec3& v) { return (v.x + v.y + v.z) * (1.0f / 3); }

}  // namespace

Bsdf::Bsdf(const Material& material, const Vec3& normal, const Vec3& outgoing, bool outside)
    : m(material), n(normal) {
  makeBasis(n, t, b);
  wo = local(outgoing);
  wo.z = std::max(wo.z, 1e-5f);
  alpha = m.roughness * m.roughness;
  if (alpha >= kSmoothAlpha) lambdaO = ggxLambda(alpha * alpha, wo);
  eta = outside ? m.ior : 1 / m.ior;
  const float metal = std::clamp(m.metallic, 0.0f, 1.0f);
  const float glass = (1 - metal) * std::clamp(m.transmission, 0.0f, 1.0f);
  const float layered = 1 - metal - glass;
  const float specular = std::clamp(m.specular, 0.0f, 1.0f);
  layerFresnel = layered * specular > 0 ? fresnelDielectric(wo.z, m.ior) : 0;
  weight[kConductor] = metal;
  weight[kGlass] = glass;
  weight[kLayer] = layered * specular;
  weight[kDiffuse] = layered * (1 - specular * layerFresnel);
  // Lobes are picked by what they return, roughly.
  float p[kLobes] = {metal, weight[kLayer] * layerFresnel, weight[kDiffuse] * mean(m.albedo),
                     glass};
  float total = 0;
  for (float v : p) total += v;
  for (int i = 0; i < kLobes; ++i) probability[i] = total > 0 ? p[i] / total : 0;
}

Vec3 Bsdf::evaluate(const Vec3& wi, float& pdf, Vec3* diffuse) const {
  return evaluateLocal(local(wi), pdf, diffuse);
}

Vec3 Bsdf::evaluateLocal(const Vec3& wi, float& pdf, Vec3* diffuse) const {
  pdf = 0;
  if (diffuse) *diffuse = Vec3();
  if (wi.z <= 0) return Vec3();
  Vec3 f;
  if (probability[kDiffuse] > 0 || weight[kDiffuse] > 0) {
    f += m.albedo * (weight[kDiffuse] * wi.z / kPi * orenNayar(m.roughness, wo, wi));
    pdf += probability[kDiffuse] * wi.z / kPi;
    if (diffuse) *diffuse = f;
  }
  if (alpha >= kSmoothAlpha) {
    const float a2 = alpha * alpha;
    const Vec3 h = normalize(wo + wi);
    const float woh = std::max(dot(wo, h), 1e-6f);
    const float d = ggxD(a2, h);
    const float lo = lambdaO, li = ggxLambda(a2, wi);
    // f |cos wi| without Fresnel, and the visible-normal density of wi.
    const float microfacet = d / ((1 + lo + li) * 4 * wo.z);
    const float density = d / ((1 + lo) * 4 * wo.z);
    if (weight[kConductor] > 0) {
      f += schlick(m.albedo, woh) * (weight[kConductor] * microfacet);
      pdf += probability[kConductor] * density;
    }
    if (weight[kLayer] > 0) {
      f += Vec3(1, 1, 1) * (weight[kLayer] * fresnelDielectric(woh, m.ior) * microfacet);
      pdf += probability[kLayer] * density;
    }
    if (weight[kGlass] > 0) {
      const float fresnel = fresnelDielectric(woh, eta);
      f += Vec3(1, 1, 1) * (weight[kGlass] * fresnel * microfacet);
      pdf += probability[kGlass] * fresnel * density;
    }
  }
  return f;
}

bool Bsdf::sample(float u0, float u1, float u2, BsdfSample& out) const {
  int lobe = 0;
  float start = 0;
  for (; lobe < kLobes - 1 && u0 >= start + probability[lobe]; ++lobe) start += probability[lobe];
  const float p = probability[lobe];
  if (p <= 0) return false;
  const float u3 = std::min((u0 - start) / p, 0.99999994f);  // u0 again, within the lobe
  Vec3 wi;
  const float a2 = alpha * alpha;
  if (lobe == kDiffuse) {
    const float r = std::sqrt(u1), phi = 2 * kPi * u2;
    wi = Vec3(r * std::cos(phi), r * std::sin(phi), std::sqrt(std::max(0.0f, 1 - u1)));
  } else if (alpha < kSmoothAlpha) {
    // Delta lobes: the density's delta cancels f's.
    out.specular = true;
    out.pdf = 0;
    const Vec3 mirror(-wo.x, -wo.y, wo.z);
    if (lobe == kConductor) {
      out.weight = schlick(m.albedo, wo.z) * (weight[kConductor] / p);
      out.wi = world(mirror);
    } else if (lobe == kLayer) {
      out.weight = Vec3(1, 1, 1) * (weight[kLayer] * layerFresnel / p);
      out.wi = world(mirror);
    } else {
      const float fresnel = fresnelDielectric(wo.z, eta);
      out.weight = (u3 < fresnel ? Vec3(1, 1, 1) : m.albedo) * (weight[kGlass] / p);
      if (u3 < fresnel) {
        out.wi = world(mirror);
      } else {
        const float cosT = std::sqrt(std::max(0.0f, 1 - (1 - wo.z * wo.z) / (eta * eta)));
        out.wi = world(Vec3(-wo.x / eta, -wo.y / eta, -cosT));
      }
    }
    return true;
  } else {
    const Vec3 h = sampleVisibleNormal(alpha, wo, u1, u2);
    const float woh = dot(wo, h);
    if (woh <= 0) return false;
    const float fresnel = lobe == kGlass ? fresnelDielectric(woh, eta) : 1;
    if (lobe == kGlass && u3 >= fresnel) {
      // Refraction through the microfacet: weight G2 / G1(wo), the Fresnel
      // term cancelled by the choice.
      const float sin2T = (1 - woh * woh) / (eta * eta);
      const float cosT = std::sqrt(std::max(0.0f, 1 - sin2T));
      wi = h * (woh / eta - cosT) - wo * (1 / eta);
      if (wi.z >= 0) return false;
      const float lo = lambdaO, li = ggxLambda(a2, wi);
      out.wi = world(normalize(wi));
      out.weight = m.albedo * (weight[kGlass] / p * (1 + lo) / (1 + lo + li));
      out.specular = true;
      out.pdf = 0;
      return true;
    }
    wi = reflect(wo, h);
  }
  if (wi.z <= 0) return false;
  float pdf;
  Vec3 diffuse;
  const Vec3 f = evaluateLocal(wi, pdf, &diffuse);
  if (pdf <= 0) return false;
  out.wi = world(wi);
  out.weight = f * (1 / pdf);
  out.diffuseWeight = diffuse * (1 / pdf);
  out.pdf = pdf;
  out.specular = false;
  return true;
}

}  // namespace pathtracer
