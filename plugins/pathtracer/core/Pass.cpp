#include "Pass.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "Integrator.h"

namespace pathtracer {

namespace {
constexpr int kTile = 16;
}

bool renderPass(const RenderScene& scene, int sampleIndex, std::vector<float>& sums,
                tbb::task_arena& arena, const std::atomic<bool>& cancel) {
  const int width = scene.settings.width, height = scene.settings.height;
  const int tilesX = (width + kTile - 1) / kTile, tilesY = (height + kTile - 1) / kTile;
  // The task library is not built with the thread sanitizer, so its own
  // hand-over is invisible to it: these two atomics make the order of the
  // pass's writes and the caller's reads explicit.
  std::atomic<int> launched{0}, finished{0};
  launched.store(1, std::memory_order_release);
  arena.execute([&] {
    tbb::parallel_for(tbb::blocked_range<int>(0, tilesX * tilesY), [&](const tbb::blocked_range<int>& r) {
      launched.load(std::memory_order_acquire);
      for (int tile = r.begin(); tile != r.end(); ++tile) {
        if (cancel.load(std::memory_order_relaxed)) break;
        const int x0 = (tile % tilesX) * kTile, y0 = (tile / tilesX) * kTile;
        const int x1 = std::min(x0 + kTile, width), y1 = std::min(y0 + kTile, height);
        for (int y = y0; y < y1; ++y)
          for (int x = x0; x < x1; ++x) {
            Random random(uint32_t(y * width + x), uint32_t(sampleIndex));
            const CameraRay ray = cameraRay(scene, x + random.next(), y + random.next());
            const Vec3 l = radiance(scene, ray, random);
            float* pixel = &sums[3 * (size_t(y) * width + x)];
            // A sample that went wrong numerically is dropped, not smeared.
            if (std::isfinite(l.x) && std::isfinite(l.y) && std::isfinite(l.z)) {
              pixel[0] += l.x; pixel[1] += l.y; pixel[2] += l.z;
            }
          }
      }
      finished.fetch_add(1, std::memory_order_release);
    });
  });
  finished.load(std::memory_order_acquire);
  return !cancel.load();
}

}  // namespace pathtracer
