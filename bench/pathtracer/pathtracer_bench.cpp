#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <sstream>

#include "Integrator.h"
#include "Pass.h"
#include "Renderer.h"
#include "XoScenegraph/AttributeJson.h"

using namespace pathtracer;
using Arbolite3::internal::XoScenegraphIterator;

namespace {

const char* kModel = "/usr/share/assimp/models/PLY/Wuson.ply";  // 3732 triangles

// `copies` of the model in a grid on a floor, a camera that sees them all
// (every camera ray hits something),
// a rectangle key light and a dome; `lights` false leaves only the geometry.
SceneTree gridScene(int copies, int width, int height, int maxDepth, bool lights) {
  std::ostringstream json;
  const int side = int(std::ceil(std::sqrt(double(copies))));
  json << R"({"optree": 1, "root": {"type": "root", "attributes": {"renderSettings": {)"
       << R"("resolution": [)" << width << ", " << height << R"(], "maxDepth": )" << maxDepth
       << R"(}}, "children": [{"name": "cam", "type": "camera", "attributes": {"geometry": {"fov": 50.0},)"
       << R"("xform": {"translate": [0.0, )" << side * 1.5 << ", " << side * 2.5
       << R"(], "rotate": [-30.0, 0.0, 0.0]}}},
      {"name": "floor", "type": "polymesh", "attributes": {"geometry": {
        "point": {"P": [-500.0,0.0,-500.0, 500.0,0.0,-500.0, 500.0,0.0,500.0, -500.0,0.0,500.0]},
        "poly": {"faceCounts": [4], "vertexList": [3,2,1,0]}}}})";
  if (lights)
    json << R"(, {"name": "key", "type": "light", "attributes": {"material": {"lightShader": "rectLight",
        "params": {"intensity": 20.0, "width": 3.0, "height": 3.0}},
        "xform": {"translate": [0.0, 8.0, 4.0], "rotate": [-70.0, 0.0, 0.0]}}},
      {"name": "sky", "type": "light", "attributes": {"material": {"lightShader": "domeLight",
        "params": {"intensity": 0.3}}}})";
  for (int i = 0; i < copies; ++i)
    json << R"(, {"name": "m)" << i << R"(", "type": "polymesh", "attributes": {"geometry": {"file": ")"
         << kModel << R"("}, "xform": {"translate": [)" << (i % side - side / 2) * 2.0 << ", 0.0, "
         << (i / side - side / 2) * 3.5 << "]}}}";
  json << "]}}";
  return SceneTree::fromIterator(XoScenegraphIterator::getIteratorFromText(json.str()));
}

RendererOptions quiet(int threads) {
  RendererOptions options;
  options.threads = threads;
  options.writeImages = false;
  return options;
}

constexpr int kCopies = 30;  // 111,960 triangles

// Primary rays through the renderer: camera ray, hit, shading of a path of
// length one with no lights, one thread.
void BM_RendererPrimaryRays(benchmark::State& state) {
  Renderer renderer(quiet(1));
  renderer.load(gridScene(kCopies, 256, 256, 1, false));
  const RenderScene& scene = renderer.scene();
  std::vector<float> sums(256 * 256 * 3);
  tbb::task_arena arena(1);
  const std::atomic<bool> never{false};
  int sample = 0;
  for (auto _ : state) renderPass(scene, sample++, sums, arena, never);
  state.SetItemsProcessed(state.iterations() * 256 * 256);
  state.counters["triangles"] = double(scene.triangleCount());
}
BENCHMARK(BM_RendererPrimaryRays)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floor: the same rays, made beforehand, traced with nothing else.
void BM_BareEmbreePrimaryRays(benchmark::State& state) {
  Renderer renderer(quiet(1));
  renderer.load(gridScene(kCopies, 256, 256, 1, false));
  const RenderScene& scene = renderer.scene();
  std::vector<CameraRay> rays;
  for (int y = 0; y < 256; ++y)
    for (int x = 0; x < 256; ++x) {
      Random random(uint32_t(y * 256 + x), 0);
      rays.push_back(cameraRay(scene, x + random.next(), y + random.next()));
    }
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  size_t hits = 0;
  for (auto _ : state) {
    for (const CameraRay& ray : rays) {
      RTCRayHit rh;
      rh.ray.org_x = ray.origin.x; rh.ray.org_y = ray.origin.y; rh.ray.org_z = ray.origin.z;
      rh.ray.dir_x = ray.direction.x; rh.ray.dir_y = ray.direction.y; rh.ray.dir_z = ray.direction.z;
      rh.ray.tnear = ray.tnear; rh.ray.tfar = ray.tfar;
      rh.ray.time = 0; rh.ray.mask = 0xffffffffu; rh.ray.id = 0; rh.ray.flags = 0;
      rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
      rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
      rtcIntersect1(scene.geometry->scene, &context, &rh);
      hits += rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * rays.size());
}
BENCHMARK(BM_BareEmbreePrimaryRays)->Unit(benchmark::kMillisecond)->UseRealTime();

// Full paths (depth 5, a rectangle light and a dome) on the same scene.
void BM_SamplesPerSecond(benchmark::State& state) {
  const int threads = int(state.range(0));
  Renderer renderer(quiet(threads));
  renderer.load(gridScene(kCopies, 256, 256, 5, true));
  std::vector<float> sums(256 * 256 * 3);
  tbb::task_arena arena(threads);
  const std::atomic<bool> never{false};
  int sample = 0;
  for (auto _ : state) renderPass(renderer.scene(), sample++, sums, arena, never);
  state.SetItemsProcessed(state.iterations() * 256 * 256);
  state.counters["triangles"] = double(renderer.scene().triangleCount());
}
BENCHMARK(BM_SamplesPerSecond)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// From submitUpdate of a camera move to the first complete image of the new
// state, written as PNG, at 512x512 and one sample per pixel.
void BM_LiveCameraMoveLatency(benchmark::State& state) {
  RendererOptions options;
  options.samples = 1;
  options.output = "/tmp/pathtracer-bench-live.png";
  Renderer renderer(options);
  renderer.load(gridScene(1, 512, 512, 3, true));
  renderer.startLive();
  renderer.waitForSamples(renderer.state(), 1, std::chrono::seconds(60));
  std::vector<double> latencies;
  int step = 0;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    renderer.submitUpdate(GroupAttribute(Arbolite3::internal::attributeFromJsonText(
        R"({"/root/cam": {"attributes": {"xform": {"translate": [)" +
        std::to_string(0.01 * (++step % 50)) + R"(, 1.5, 2.5]}}}})")));
    renderer.applyQueuedUpdates();
    renderer.waitForSamples(renderer.state(), 1, std::chrono::seconds(60));
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(took.count() / 1000);
    latencies.push_back(took.count());
  }
  renderer.stopLive();
  std::remove(options.output.c_str());
  std::sort(latencies.begin(), latencies.end());
  state.counters["median_ms"] = latencies[latencies.size() / 2];
  state.counters["p90_ms"] = latencies[latencies.size() * 9 / 10];
}
BENCHMARK(BM_LiveCameraMoveLatency)->Iterations(40)->UseManualTime()->Unit(benchmark::kMillisecond);

// Peak resident memory added by loading a scene of about 1.1 million
// triangles, per million triangles. Run alone (a filter), since the peak of
// earlier benchmarks would hide it.
void BM_PeakMemoryPerMillionTriangles(benchmark::State& state) {
  for (auto _ : state) {
    rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    Renderer renderer(quiet(2));
    renderer.load(gridScene(300, 64, 64, 1, false));
    getrusage(RUSAGE_SELF, &after);
    const double triangles = double(renderer.scene().triangleCount());
    state.counters["triangles"] = triangles;
    state.counters["MiB_per_Mtri"] =
        double(after.ru_maxrss - before.ru_maxrss) / 1024.0 / (triangles / 1e6);
  }
}
BENCHMARK(BM_PeakMemoryPerMillionTriangles)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
