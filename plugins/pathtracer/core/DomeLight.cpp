#include "DomeLight.h"

#include <OpenImageIO/imagebuf.h>

#include <algorithm>
#include <cmath>

namespace pathtracer {

namespace {

constexpr float kPi = float(M_PI);

// atan2 within 2e-6 radians (a polynomial on [0, 1] and the octant's
// symmetries), and acos within 1e-7: a texel of an 8k image spans 8e-4.
float fastAtan2(float y, float x) {
  const float ax = std::fabs(x), ay = std::fabs(y);
  const float big = std::max(ax, ay);
  if (big == 0) return 0;
  const float z = std::min(ax, ay) / big, z2 = z * z;
  float a = z * (0.99997726f + z2 * (-0.33262347f + z2 * (0.19354346f +
                 z2 * (-0.11643287f + z2 * (0.05265332f + z2 * -0.01172120f)))));
  if (ay > ax) a = 0.5f * kPi - a;
  if (x < 0) a = kPi - a;
  return y < 0 ? -a : a;
}

float fastAcos(float x) {
  const float ax = std::min(std::fabs(x), 1.0f);
  const float a = std::sqrt(1 - ax) *
                  (1.5707963050f + ax * (-0.2145988016f + ax * (0.0889789874f +
                   ax * (-0.0501743046f + ax * (0.0308918810f + ax * (-0.0170881256f +
                   ax * (0.0066700901f + ax * -0.0012624911f)))))));
  return x < 0 ? kPi - a : a;
}

// Vose's construction of an alias table for `count` weights (not all 0):
// every entry is filled up to an equal share from one above its share.
void buildAlias(const double* weights, size_t count, DomeLight::Alias* alias) {
  double total = 0;
  for (size_t i = 0; i < count; ++i) total += weights[i];
  std::vector<double> scaled(count);
  std::vector<uint32_t> small, large;
  for (size_t i = 0; i < count; ++i) {
    scaled[i] = weights[i] * double(count) / total;
    (scaled[i] < 1 ? small : large).push_back(uint32_t(i));
  }
  while (!small.empty() && !large.empty()) {
    const uint32_t s = small.back(), l = large.back();
    small.pop_back();
    alias[s] = {float(scaled[s]), l};
    scaled[l] -= 1 - scaled[s];
    if (scaled[l] < 1) {
      large.pop_back();
      small.push_back(l);
    }
  }
  for (uint32_t i : small) alias[i] = {1, i};
  for (uint32_t i : large) alias[i] = {1, i};
}

// One of `count` entries drawn from `alias` by u in [0, 1); u becomes what
// is left of it, again uniform in [0, 1).
uint32_t drawAlias(const DomeLight::Alias* alias, size_t count, double& u) {
  const double scaled = u * double(count);
  const uint32_t slot = uint32_t(std::min(size_t(scaled), count - 1));
  u = std::min(scaled - double(slot), 1.0);
  const DomeLight::Alias& entry = alias[slot];
  if (u < entry.keep) {
    u /= entry.keep;
    return slot;
  }
  u = (u - entry.keep) / (1 - entry.keep);
  return entry.other;
}

Vec3 cosineDirection(float u1, float u2, const Vec3& n) {
  Vec3 t, b;
  makeBasis(n, t, b);
  const float r = std::sqrt(u1), phi = 2 * kPi * u2;
  return t * (r * std::cos(phi)) + b * (r * std::sin(phi)) + n * std::sqrt(std::max(0.0f, 1 - u1));
}

}  // namespace

bool DomeLight::loadImage(const std::string& path, std::string& error) {
  OIIO::ImageBuf file(path);
  // Read on this thread: the image library's own workers hand the pixels
  // over in ways the thread sanitizer cannot see, and it is read once.
  file.threads(1);
  if (!file.read(0, 0, true, OIIO::TypeDesc::FLOAT)) {
    error = file.geterror();
    return false;
  }
  const OIIO::ROI all = file.roi();
  const int channels = all.nchannels();
  std::vector<float> pixels(all.npixels() * size_t(channels));
  if (!file.get_pixels(all, OIIO::TypeDesc::FLOAT, pixels.data()) || all.npixels() == 0) {
    error = file.geterror();
    return false;
  }
  auto made = std::make_shared<Image>();
  Image& m = *made;
  m.path = path;
  const int width = m.width = all.width(), height = m.height = all.height();
  m.texels.resize(size_t(width) * height);
  for (size_t i = 0; i < size_t(width) * height; ++i)
    for (int c = 0; c < 3; ++c)
      m.texels[i].rgb[c] = std::max(0.0f, pixels[i * channels + std::min(c, channels - 1)]);
  // Texels are drawn in proportion to brightness times the solid angle of
  // their row.
  const size_t count = size_t(width) * height;
  std::vector<double> weight(count);
  double total = 0;
  for (int y = 0; y < height; ++y) {
    const double sinTheta = std::sin(M_PI * (y + 0.5) / height);
    for (int x = 0; x < width; ++x) {
      const size_t i = size_t(y) * width + x;
      const float* rgb = m.texels[i].rgb;
      weight[i] = (double(rgb[0]) + rgb[1] + rgb[2]) * sinTheta + 1e-8;
      total += weight[i];
    }
  }
  for (size_t i = 0; i < count; ++i)
    m.texels[i].density = float(weight[i] / total * double(count) / (2 * M_PI * M_PI));
  // A row is drawn first, then a texel within it: the tables of the bright
  // rows, which most draws pick, stay in the cache.
  std::vector<double> rows(size_t(height), 0.0);
  for (size_t i = 0; i < count; ++i) rows[i / size_t(width)] += weight[i];
  m.rowAlias.resize(size_t(height));
  buildAlias(rows.data(), size_t(height), m.rowAlias.data());
  m.columnAlias.resize(count);
  for (int y = 0; y < height; ++y)
    buildAlias(&weight[size_t(y) * width], size_t(width), &m.columnAlias[size_t(y) * width]);
  image = made;
  return true;
}

bool DomeLight::reuseImage(const DomeLight& other, const std::string& path) {
  if (!other.image || other.image->path != path) return false;
  image = other.image;
  return true;
}

void DomeLight::setTransform(const Transform& world) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) toWorld.m[i][j] = float(world.m[i][j]);
  // The inverse of the linear part, for turning world directions back.
  const auto& m = world.m;
  const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                     m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                     m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
  if (det == 0) return;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      const int a = (j + 1) % 3, b = (j + 2) % 3, c = (i + 1) % 3, d = (i + 2) % 3;
      toLocal.m[i][j] = float((m[a][c] * m[b][d] - m[a][d] * m[b][c]) / det);
    }
}

int DomeLight::texelOf(const Vec3& toward, float* sinTheta) const {
  const Vec3 d = normalize(toLocal(toward));
  const float u = 0.5f + fastAtan2(d.x, -d.z) * (0.5f / kPi);
  const float v = fastAcos(d.y) * (1 / kPi);
  if (sinTheta) *sinTheta = std::sqrt(std::max(0.0f, 1 - d.y * d.y));
  const int x = std::clamp(int(u * image->width), 0, image->width - 1);
  const int y = std::clamp(int(v * image->height), 0, image->height - 1);
  return y * image->width + x;
}

Vec3 DomeLight::radiance(const Vec3& toward) const {
  if (!hasImage()) return color;
  const float* rgb = image->texels[size_t(texelOf(toward, nullptr))].rgb;
  return Vec3(rgb[0], rgb[1], rgb[2]) * color;
}

Vec3 DomeLight::sample(float u1, float u2, float u3, const Vec3& n, float& density,
                       Vec3* arriving) const {
  if (!hasImage() || uniformSampling) {
    const Vec3 wi = cosineDirection(u1, u2, n);
    density = std::max(0.0f, dot(wi, n)) / kPi;
    if (arriving) *arriving = radiance(wi);
    return wi;
  }
  const int width = image->width, height = image->height;
  // u1 and u3 (multiples of 2^-24) make one number fine enough to pick
  // among millions of texels and to leave a fraction within the texel.
  double u = double(u1) + double(u3) * (1.0 / 16777216.0);
  const int y = int(drawAlias(image->rowAlias.data(), size_t(height), u));
  const int x = int(drawAlias(&image->columnAlias[size_t(y) * width], size_t(width), u));
  const size_t texel = size_t(y) * width + x;
  const double fy = u;
  const float phi = ((x + u2) / width - 0.5f) * 2 * kPi;
  const float theta = (y + std::clamp(float(fy), 0.0f, 1.0f)) / height * kPi;
  const float sinTheta = std::sin(theta);
  const Vec3 local(sinTheta * std::sin(phi), std::cos(theta), -sinTheta * std::cos(phi));
  const Vec3 wi = normalize(toWorld(local));
  const Texel& chosen = image->texels[texel];
  density = sinTheta <= 1e-6f ? 0 : chosen.density / sinTheta;
  if (arriving) {
    const float* rgb = chosen.rgb;
    *arriving = Vec3(rgb[0], rgb[1], rgb[2]) * color;
  }
  return wi;
}

Vec3 DomeLight::radianceAndPdf(const Vec3& toward, const Vec3& n, float& density) const {
  if (!hasImage() || uniformSampling) {
    density = pdf(toward, n);
    return radiance(toward);
  }
  float sinTheta;
  const int texel = texelOf(toward, &sinTheta);
  const Texel& seen = image->texels[size_t(texel)];
  density = sinTheta <= 1e-6f ? 0 : seen.density / sinTheta;
  const float* rgb = seen.rgb;
  return Vec3(rgb[0], rgb[1], rgb[2]) * color;
}

float DomeLight::pdf(const Vec3& toward, const Vec3& n) const {
  if (!hasImage()) return 0;  // not sampled: see directLight
  if (uniformSampling) return std::max(0.0f, dot(toward, n)) / kPi;
  float sinTheta;
  const int texel = texelOf(toward, &sinTheta);
  if (sinTheta <= 1e-6f) return 0;
  return image->texels[size_t(texel)].density / sinTheta;
}

}  // namespace pathtracer
