#include "CameraRays.h"

#include <algorithm>

namespace pathtracer {

namespace {

// The radical inverse of `i` in `base`: the Halton sequence's coordinate.
float radicalInverse(unsigned i, unsigned base) {
  float inverse = 0, digit = 1.0f / float(base);
  for (; i > 0; i /= base, digit /= float(base)) inverse += float(i % base) * digit;
  return inverse;
}

}  // namespace

CameraRays::CameraRays(const RenderScene& scene, int sampleIndex) {
  const Camera& c = scene.camera;
  const float w = float(scene.settings.width), h = float(scene.settings.height);
  // Image plane position, the shorter side spanning [-1, 1]: s = a + b * pixel.
  const float perPixel = 2 / std::min(w, h);
  // Index 0 would be the pixel's corner; the first pass samples near its centre.
  const unsigned index = unsigned(sampleIndex) + 1;
  const float sx0 = radicalInverse(index, 2) * perPixel - w / std::min(w, h);
  const float sy0 = h / std::min(w, h) - radicalInverse(index, 3) * perPixel;
  if (c.orthographic) {
    const float half = c.orthographicWidth / 2;
    origin = c.position + c.right * (sx0 * half) + c.up * (sy0 * half);
    originPerX = c.right * (perPixel * half);
    originPerY = c.up * (-perPixel * half);
    direction = normalize(-c.forward);
    tnear = c.nearClip;
    tfar = c.farClip;
    setLanes();
    return;
  }
  origin = c.position;
  direction = c.right * (sx0 * c.tanHalfFov) + c.up * (sy0 * c.tanHalfFov) - c.forward;
  directionPerX = c.right * (perPixel * c.tanHalfFov);
  directionPerY = c.up * (-perPixel * c.tanHalfFov);
  tnear = c.nearClip;
  tfar = c.farClip;
  setLanes();
}

void CameraRays::setLanes() {
  for (int i = 0; i < kPacket; ++i) {
    const float column = float(i % kPacketSide), row = float(i / kPacketSide);
    const Vec3 o = originPerX * column + originPerY * row;
    const Vec3 d = directionPerX * column + directionPerY * row;
    originLanes.x[i] = o.x; originLanes.y[i] = o.y; originLanes.z[i] = o.z;
    directionLanes.x[i] = d.x; directionLanes.y[i] = d.y; directionLanes.z[i] = d.z;
  }
}

void CameraRays::fill(int x0, int y0, int columns, int rows, RTCRayHit16& packet,
                      int* valid) const {
  const Vec3 o = origin + originPerX * float(x0) + originPerY * float(y0);
  const Vec3 d = direction + directionPerX * float(x0) + directionPerY * float(y0);
  // One loop per field: each compiles to a few vector instructions.
  for (int i = 0; i < kPacket; ++i) packet.ray.org_x[i] = o.x + originLanes.x[i];
  for (int i = 0; i < kPacket; ++i) packet.ray.org_y[i] = o.y + originLanes.y[i];
  for (int i = 0; i < kPacket; ++i) packet.ray.org_z[i] = o.z + originLanes.z[i];
  for (int i = 0; i < kPacket; ++i) packet.ray.dir_x[i] = d.x + directionLanes.x[i];
  for (int i = 0; i < kPacket; ++i) packet.ray.dir_y[i] = d.y + directionLanes.y[i];
  for (int i = 0; i < kPacket; ++i) packet.ray.dir_z[i] = d.z + directionLanes.z[i];
  for (int i = 0; i < kPacket; ++i) packet.ray.tnear[i] = tnear;
  for (int i = 0; i < kPacket; ++i) packet.ray.tfar[i] = tfar;
  for (int i = 0; i < kPacket; ++i) packet.ray.time[i] = 0;
  for (int i = 0; i < kPacket; ++i) packet.ray.mask[i] = 0xffffffffu;
  for (int i = 0; i < kPacket; ++i) packet.ray.id[i] = unsigned(i);
  for (int i = 0; i < kPacket; ++i) packet.ray.flags[i] = 0;
  for (int i = 0; i < kPacket; ++i) packet.hit.geomID[i] = RTC_INVALID_GEOMETRY_ID;
  for (int i = 0; i < kPacket; ++i) packet.hit.instID[0][i] = RTC_INVALID_GEOMETRY_ID;
  if (columns >= kPacketSide && rows >= kPacketSide) {
    for (int i = 0; i < kPacket; ++i) valid[i] = -1;
  } else {
    for (int i = 0; i < kPacket; ++i)
      valid[i] = i % kPacketSide < columns && i / kPacketSide < rows ? -1 : 0;
  }
}

}  // namespace pathtracer
