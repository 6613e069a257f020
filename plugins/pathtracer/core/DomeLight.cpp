#include "DomeLight.h"

#include <OpenImageIO/imagebuf.h>

#include <algorithm>
#include <cmath>

namespace pathtracer {

namespace {

constexpr float kPi = float(M_PI);

// Index of the interval of `cdf` (ascending, from 0 to 1) that holds u.
int findInterval(const float* cdf, int count, float u) {
  const float* at = std::upper_bound(cdf, cdf + count + 1, u);
  return std::clamp(int(at - cdf) - 1, 0, count - 1);
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
  m.texels.resize(size_t(width) * height * 3);
  for (size_t i = 0; i < size_t(width) * height; ++i)
    for (int c = 0; c < 3; ++c)
      m.texels[3 * i + c] = std::max(0.0f, pixels[i * channels + std::min(c, channels - 1)]);
  // Texels are drawn in proportion to brightness times the solid angle of
  // their row.
  m.texelProbability.assign(size_t(width) * height, 0);
  m.columnCdf.assign(size_t(width + 1) * height, 0);
  m.rowCdf.assign(height + 1, 0);
  for (int y = 0; y < height; ++y) {
    const float sinTheta = std::sin(kPi * (y + 0.5f) / height);
    float* cdf = &m.columnCdf[size_t(width + 1) * y];
    for (int x = 0; x < width; ++x) {
      const float* rgb = &m.texels[3 * (size_t(y) * width + x)];
      float& p = m.texelProbability[size_t(y) * width + x];
      p = (rgb[0] + rgb[1] + rgb[2]) * sinTheta + 1e-8f;
      cdf[x + 1] = cdf[x] + p;
    }
    m.rowCdf[y + 1] = m.rowCdf[y] + cdf[width];
  }
  const float total = m.rowCdf[height];
  for (int y = 0; y < height; ++y) {
    float* cdf = &m.columnCdf[size_t(width + 1) * y];
    for (int x = 1; x <= width; ++x) cdf[x] /= cdf[width];
    m.rowCdf[y + 1] /= total;
  }
  for (float& p : m.texelProbability) p /= total;
  image = made;
  return true;
}

bool DomeLight::reuseImage(const DomeLight& other, const std::string& path) {
  if (!other.image || other.image->path != path) return false;
  image = other.image;
  return true;
}

void DomeLight::setTransform(const Transform& world) {
  toWorld = world;
  // The inverse of the linear part, for turning world directions back.
  const auto& m = world.m;
  const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                     m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                     m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
  if (det == 0) return;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      const int a = (j + 1) % 3, b = (j + 2) % 3, c = (i + 1) % 3, d = (i + 2) % 3;
      toLocal.m[i][j] = (m[a][c] * m[b][d] - m[a][d] * m[b][c]) / det;
    }
}

int DomeLight::texelOf(const Vec3& toward, float* sinTheta) const {
  const Vec3 d = normalize(toLocal.vector(toward));
  const float u = 0.5f + std::atan2(d.x, -d.z) / (2 * kPi);
  const float v = std::acos(std::clamp(d.y, -1.0f, 1.0f)) / kPi;
  if (sinTheta) *sinTheta = std::sqrt(std::max(0.0f, 1 - d.y * d.y));
  const int x = std::clamp(int(u * image->width), 0, image->width - 1);
  const int y = std::clamp(int(v * image->height), 0, image->height - 1);
  return y * image->width + x;
}

Vec3 DomeLight::radiance(const Vec3& toward) const {
  if (!hasImage()) return color;
  const float* rgb = &image->texels[3 * size_t(texelOf(toward, nullptr))];
  return Vec3(rgb[0], rgb[1], rgb[2]) * color;
}

Vec3 DomeLight::sample(float u1, float u2, const Vec3& n, float& density, Vec3* arriving) const {
  if (!hasImage() || uniformSampling) {
    const Vec3 wi = cosineDirection(u1, u2, n);
    density = std::max(0.0f, dot(wi, n)) / kPi;
    if (arriving) *arriving = radiance(wi);
    return wi;
  }
  const int width = image->width, height = image->height;
  const std::vector<float>& rowCdf = image->rowCdf;
  const int y = findInterval(rowCdf.data(), height, u1);
  const float* cdf = &image->columnCdf[size_t(width + 1) * y];
  const int x = findInterval(cdf, width, u2);
  // Where in the texel, from what is left of the two numbers.
  const float fy = (u1 - rowCdf[y]) / std::max(rowCdf[y + 1] - rowCdf[y], 1e-12f);
  const float fx = (u2 - cdf[x]) / std::max(cdf[x + 1] - cdf[x], 1e-12f);
  const float phi = ((x + std::clamp(fx, 0.0f, 1.0f)) / width - 0.5f) * 2 * kPi;
  const float theta = (y + std::clamp(fy, 0.0f, 1.0f)) / height * kPi;
  const float sinTheta = std::sin(theta);
  const Vec3 local(sinTheta * std::sin(phi), std::cos(theta), -sinTheta * std::cos(phi));
  const Vec3 wi = normalize(toWorld.vector(local));
  const Vec3 seen = radianceAndPdf(wi, n, density);
  if (arriving) *arriving = seen;
  return wi;
}

Vec3 DomeLight::radianceAndPdf(const Vec3& toward, const Vec3& n, float& density) const {
  if (!hasImage() || uniformSampling) {
    density = pdf(toward, n);
    return radiance(toward);
  }
  float sinTheta;
  const int texel = texelOf(toward, &sinTheta);
  density = sinTheta <= 1e-6f ? 0
                              : image->texelProbability[texel] * float(image->width) *
                                    float(image->height) / (2 * kPi * kPi * sinTheta);
  const float* rgb = &image->texels[3 * size_t(texel)];
  return Vec3(rgb[0], rgb[1], rgb[2]) * color;
}

float DomeLight::pdf(const Vec3& toward, const Vec3& n) const {
  if (!hasImage()) return 0;  // not sampled: see directLight
  if (uniformSampling) return std::max(0.0f, dot(toward, n)) / kPi;
  float sinTheta;
  const int texel = texelOf(toward, &sinTheta);
  if (sinTheta <= 1e-6f) return 0;
  return image->texelProbability[texel] * float(image->width) * float(image->height) /
         (2 * kPi * kPi * sinTheta);
}

}  // namespace pathtracer
