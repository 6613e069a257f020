// Small vector and affine-transform types for the path tracer.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace pathtracer {

struct Vec3 {
  float x = 0, y = 0, z = 0;
  Vec3() = default;
  Vec3(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
  Vec3 operator+(const Vec3& o) const { return {x + o.x, y + o.y, z + o.z}; }
  Vec3 operator-(const Vec3& o) const { return {x - o.x, y - o.y, z - o.z}; }
  Vec3 operator*(const Vec3& o) const { return {x * o.x, y * o.y, z * o.z}; }
  Vec3 operator*(float s) const { return {x * s, y * s, z * s}; }
  Vec3 operator-() const { return {-x, -y, -z}; }
  Vec3& operator+=(const Vec3& o) { x += o.x; y += o.y; z += o.z; return *this; }
  Vec3& operator*=(const Vec3& o) { x *= o.x; y *= o.y; z *= o.z; return *this; }
  float operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
  bool isBlack() const { return x <= 0 && y <= 0 && z <= 0; }
};

inline float dot(const Vec3& a, const Vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3 cross(const Vec3& a, const Vec3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length(const Vec3& v) { return std::sqrt(dot(v, v)); }
inline Vec3 normalize(const Vec3& v) {
  const float l = length(v);
  return l > 0 ? v * (1.0f / l) : v;
}

// Orthonormal basis around a unit normal.
inline void makeBasis(const Vec3& n, Vec3& t, Vec3& b) {
  const float sign = std::copysign(1.0f, n.z);
  const float a = -1.0f / (sign + n.z);
  const float c = n.x * n.y * a;
  t = Vec3(1.0f + sign * n.x * n.x * a, sign * c, -sign * n.x);
  b = Vec3(c, sign + n.y * n.y * a, -n.y);
}

// A unit vector in 32 bits (octahedral map, 16 bits a coordinate): about
// 1e-4 radians, a third of the memory of three floats.
inline uint32_t packUnit(const Vec3& v) {
  const float l1 = std::fabs(v.x) + std::fabs(v.y) + std::fabs(v.z);
  float x = v.x / l1, y = v.y / l1;
  if (v.z < 0) {
    const float px = (1 - std::fabs(y)) * std::copysign(1.0f, x);
    y = (1 - std::fabs(x)) * std::copysign(1.0f, y);
    x = px;
  }
  auto quantise = [](float c) { return uint32_t(std::lround((c * 0.5f + 0.5f) * 65535.0f)); };
  return quantise(x) | (quantise(y) << 16);
}
// The packed direction, of a length between 1/sqrt(3) and 1: blends of a few
// need one normalisation, not one each.
inline Vec3 unpackDirection(uint32_t packed) {
  const float x = float(packed & 0xffff) * (2.0f / 65535.0f) - 1;
  const float y = float(packed >> 16) * (2.0f / 65535.0f) - 1;
  const float z = 1 - std::fabs(x) - std::fabs(y);
  const float t = std::max(-z, 0.0f);
  return Vec3(x + (x >= 0 ? -t : t), y + (y >= 0 ? -t : t), z);
}

// Affine transform, row-major 3x4: p' = M * [p 1].
struct Transform {
  double m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};

  Transform operator*(const Transform& o) const {
    Transform r;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 4; ++j) {
        double v = (j == 3) ? m[i][3] : 0.0;
        for (int k = 0; k < 3; ++k) v += m[i][k] * o.m[k][j];
        r.m[i][j] = v;
      }
    return r;
  }
  Vec3 point(const Vec3& p) const {
    return {float(m[0][0] * p.x + m[0][1] * p.y + m[0][2] * p.z + m[0][3]),
            float(m[1][0] * p.x + m[1][1] * p.y + m[1][2] * p.z + m[1][3]),
            float(m[2][0] * p.x + m[2][1] * p.y + m[2][2] * p.z + m[2][3])};
  }
  Vec3 vector(const Vec3& v) const {
    return {float(m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z),
            float(m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z),
            float(m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z)};
  }
  // Normals transform with the inverse transpose of the linear part; the
  // cofactor matrix is that up to a positive scale when det > 0.
  Vec3 normal(const Vec3& n) const {
    const double c[3][3] = {
        {m[1][1] * m[2][2] - m[1][2] * m[2][1], m[1][2] * m[2][0] - m[1][0] * m[2][2],
         m[1][0] * m[2][1] - m[1][1] * m[2][0]},
        {m[0][2] * m[2][1] - m[0][1] * m[2][2], m[0][0] * m[2][2] - m[0][2] * m[2][0],
         m[0][1] * m[2][0] - m[0][0] * m[2][1]},
        {m[0][1] * m[1][2] - m[0][2] * m[1][1], m[0][2] * m[1][0] - m[0][0] * m[1][2],
         m[0][0] * m[1][1] - m[0][1] * m[1][0]}};
    const double det = m[0][0] * c[0][0] + m[0][1] * c[0][1] + m[0][2] * c[0][2];
    const double s = det < 0 ? -1.0 : 1.0;
    return normalize(Vec3(float(s * (c[0][0] * n.x + c[0][1] * n.y + c[0][2] * n.z)),
                          float(s * (c[1][0] * n.x + c[1][1] * n.y + c[1][2] * n.z)),
                          float(s * (c[2][0] * n.x + c[2][1] * n.y + c[2][2] * n.z))));
  }

  static Transform translate(double x, double y, double z) {
    Transform t;
    t.m[0][3] = x; t.m[1][3] = y; t.m[2][3] = z;
    return t;
  }
  static Transform scale(double x, double y, double z) {
    Transform t;
    t.m[0][0] = x; t.m[1][1] = y; t.m[2][2] = z;
    return t;
  }
  // Rotation about one axis (0 x, 1 y, 2 z) by degrees.
  static Transform rotate(int axis, double degrees) {
    const double r = degrees * M_PI / 180.0, c = std::cos(r), s = std::sin(r);
    const int a = (axis + 1) % 3, b = (axis + 2) % 3;
    Transform t;
    t.m[a][a] = c; t.m[a][b] = -s;
    t.m[b][a] = s; t.m[b][b] = c;
    return t;
  }
};

}  // namespace pathtracer
