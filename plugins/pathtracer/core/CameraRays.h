// Camera rays of one pass, made straight into 4x4 ray packets. Everything
// that is the same for every pixel of the pass (the camera's axes, the
// image scale, the pass's sub-pixel offset) is worked out once, so a packet
// costs a multiply-add per lane and component.
#pragma once

#include <embree3/rtcore.h>

#include "Math.h"
#include "RenderScene.h"

namespace pathtracer {

constexpr int kPacketSide = 4, kPacket = kPacketSide * kPacketSide;

class CameraRays {
 public:
  // All pixels of one pass share its sub-pixel offset, point `sampleIndex`
  // of a low-discrepancy sequence, so successive passes cover each pixel
  // evenly.
  CameraRays(const RenderScene& scene, int sampleIndex);

  // Lane row * 4 + column of `packet` gets the ray of pixel (x0 + column,
  // y0 + row); lanes outside the `columns` x `rows` block are switched off in
  // `valid`. Directions are not unit length: for a perspective camera their
  // component along the view axis is 1, so that the clipping distances are
  // the ray's own tnear and tfar.
  void fill(int x0, int y0, int columns, int rows, RTCRayHit16& packet, int* valid) const;

 private:
  void setLanes();

  // Origin and direction at pixel (0, 0), with the pass's offset, and their
  // change per pixel to the right and per pixel down.
  Vec3 origin, originPerX, originPerY;
  Vec3 direction, directionPerX, directionPerY;
  // Each lane's offset from the first lane's origin and direction, laid out
  // like the packet so that filling it is plain vector arithmetic.
  struct Lanes { float x[kPacket], y[kPacket], z[kPacket]; };
  Lanes originLanes, directionLanes;
  float tnear, tfar;
};

}  // namespace pathtracer
