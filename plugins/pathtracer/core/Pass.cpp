#include "Pass.h"

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
  int tilesX;
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
  for (int tile = begin; tile != end; ++tile) {
    if (work.cancel.load(std::memory_order_relaxed)) break;
    const int x0 = (tile % work.tilesX) * kTile, y0 = (tile / work.tilesX) * kTile;
    const int x1 = std::min(x0 + kTile, width), y1 = std::min(y0 + kTile, height);
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) {
        Random random(uint32_t(y * width + x), uint32_t(work.sampleIndex));
        const CameraRay ray = cameraRay(scene, x + random.next(), y + random.next());
        const Vec3 l = radiance(scene, ray, random);
        float* pixel = &work.sums[3 * (size_t(y) * width + x)];
        // A sample that went wrong numerically is dropped, not smeared.
        if (std::isfinite(l.x) && std::isfinite(l.y) && std::isfinite(l.z)) {
          pixel[0] += l.x; pixel[1] += l.y; pixel[2] += l.z;
        }
      }
  }
  work.finished.fetch_add(1, std::memory_order_release);
}

}  // namespace

bool renderPass(const RenderScene& scene, int sampleIndex, std::vector<float>& sums,
                tbb::task_arena& arena, const std::atomic<bool>& cancel) {
  const int tilesX = (scene.settings.width + kTile - 1) / kTile;
  const int tilesY = (scene.settings.height + kTile - 1) / kTile;
  PassWork work{scene, sampleIndex, sums, cancel, tilesX};
  work.launched.store(1, std::memory_order_release);
  forEachRange(arena, tilesX * tilesY, &renderTiles, &work);
  work.finished.load(std::memory_order_acquire);
  return !cancel.load();
}

}  // namespace pathtracer
