#include "Pass.h"

#include <algorithm>
#include <cmath>

#include "Integrator.h"
#include "TileDispatch.h"

namespace pathtracer {

namespace {

constexpr int kTile = 16;

struct PassWork {
  const RenderScene& scene;
  int sampleIndex;
  std::vector<float>& sums;
  const std::atomic<bool>& cancel;
  CameraRays camera;
  int tilesX;
  int maxDepth;
  // The task library is not built with the thread sanitizer, so its own
  // hand-over is invisible to it: these two make the order of the pass's
  // writes and the caller's reads explicit.
  std::atomic<int> launched{0}, finished{0};
};

void renderTiles(void* context, int begin, int end) {
  PassWork& work = *static_cast<PassWork*>(context);
  work.launched.load(std::memory_order_acquire);
  const RenderScene& scene = work.scene;
  const int width = scene.settings.width, height = scene.settings.height;
  RTCIntersectContext intersectContext;
  rtcInitIntersectContext(&intersectContext);
  intersectContext.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
  alignas(64) RTCRayHit16 packet;
  alignas(64) int valid[kPacket];
  uint32_t pixels[kPacket];
  Vec3 radiances[kPacket];
  const OutputLayout& layout = scene.layout;
  std::vector<PathOutputs> outputs(layout.any() ? kPacket : 0);
  for (int tile = begin; tile != end; ++tile) {
    if (work.cancel.load(std::memory_order_relaxed)) break;
    const int x0 = (tile % work.tilesX) * kTile, y0 = (tile / work.tilesX) * kTile;
    const int x1 = std::min(x0 + kTile, width), y1 = std::min(y0 + kTile, height);
    for (int by = y0; by < y1; by += kPacketSide)
      for (int bx = x0; bx < x1; bx += kPacketSide) {
        work.camera.fill(bx, by, x1 - bx, y1 - by, packet, valid);
        rtcIntersect16(valid, scene.geometry->scene, &intersectContext, &packet);
        for (int i = 0; i < kPacket; ++i)
          pixels[i] = uint32_t((by + i / kPacketSide) * width + bx + i % kPacketSide);
        packetRadiance(scene, packet, valid, pixels, uint32_t(work.sampleIndex), work.maxDepth,
                       radiances, layout.any() ? outputs.data() : nullptr);
        for (int i = 0; i < kPacket; ++i) {
          if (!valid[i]) continue;
          const Vec3& l = radiances[i];
          // A sample that went wrong numerically is dropped, not smeared.
          if (!std::isfinite(l.x + l.y + l.z)) continue;
          float* pixel = &work.sums[size_t(layout.channels) * pixels[i]];
          pixel[0] += l.x; pixel[1] += l.y; pixel[2] += l.z;
          if (layout.any()) addOutputs(layout, outputs[i], l, pixel);
        }
      }
  }
  work.finished.fetch_add(1, std::memory_order_release);
}

}  // namespace

bool renderPass(const RenderScene& scene, int sampleIndex, std::vector<float>& sums,
                tbb::task_arena& arena, const std::atomic<bool>& cancel, int maxDepth) {
  const int tilesX = (scene.settings.width + kTile - 1) / kTile;
  const int tilesY = (scene.settings.height + kTile - 1) / kTile;
  PassWork work{scene, sampleIndex, sums, cancel, CameraRays(scene, sampleIndex), tilesX,
                maxDepth > 0 ? maxDepth : scene.settings.maxDepth};
  work.launched.store(1, std::memory_order_release);
  forEachRange(arena, tilesX * tilesY, &renderTiles, &work);
  work.finished.load(std::memory_order_acquire);
  return !cancel.load();
}

}  // namespace pathtracer
