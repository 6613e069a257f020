#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "CameraRays.h"
#include "ImageFile.h"
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

// Primary rays through the renderer: the quick first pass of a live render
// (sample 0, paths of length one) in a scene with no lights, one thread.
void BM_RendererPrimaryRays(benchmark::State& state) {
  Renderer renderer(quiet(1));
  renderer.load(gridScene(kCopies, 256, 256, 1, false));
  const RenderScene& scene = renderer.scene();
  std::vector<float> sums(256 * 256 * 3);
  tbb::task_arena arena(1);
  const std::atomic<bool> never{false};
  for (auto _ : state) renderPass(scene, 0, sums, arena, never, 1);
  state.SetItemsProcessed(state.iterations() * 256 * 256);
  state.counters["triangles"] = double(scene.triangleCount());
}
BENCHMARK(BM_RendererPrimaryRays)->Unit(benchmark::kMillisecond)->UseRealTime();

// The renderer's camera rays of that pass, in its 4x4 packets, made beforehand.
std::vector<RTCRayHit16> primaryPackets(const RenderScene& scene) {
  const CameraRays camera(scene, 0);
  std::vector<RTCRayHit16> packets;
  alignas(64) int valid[kPacket];
  for (int by = 0; by < 256; by += kPacketSide)
    for (int bx = 0; bx < 256; bx += kPacketSide) {
      alignas(64) RTCRayHit16 packet;
      camera.fill(bx, by, kPacketSide, kPacketSide, packet, valid);
      packets.push_back(packet);
    }
  return packets;
}

// The floor: the same rays traced one at a time with nothing else.
void BM_BareEmbreePrimaryRays(benchmark::State& state) {
  Renderer renderer(quiet(1));
  renderer.load(gridScene(kCopies, 256, 256, 1, false));
  const RenderScene& scene = renderer.scene();
  std::vector<RTCRayHit> rays;
  for (const RTCRayHit16& packet : primaryPackets(scene))
    for (int i = 0; i < kPacket; ++i) {
      RTCRayHit rh;
      rh.ray.org_x = packet.ray.org_x[i]; rh.ray.org_y = packet.ray.org_y[i];
      rh.ray.org_z = packet.ray.org_z[i];
      rh.ray.dir_x = packet.ray.dir_x[i]; rh.ray.dir_y = packet.ray.dir_y[i];
      rh.ray.dir_z = packet.ray.dir_z[i];
      rh.ray.tnear = packet.ray.tnear[i]; rh.ray.tfar = packet.ray.tfar[i];
      rh.ray.time = 0; rh.ray.mask = 0xffffffffu; rh.ray.id = 0; rh.ray.flags = 0;
      rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
      rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
      rays.push_back(rh);
    }
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  size_t hits = 0;
  for (auto _ : state) {
    for (const RTCRayHit& ray : rays) {
      RTCRayHit rh = ray;
      rtcIntersect1(scene.geometry->scene, &context, &rh);
      hits += rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * rays.size());
}
BENCHMARK(BM_BareEmbreePrimaryRays)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floor for packets: the same rays in the same packets, traced with
// nothing else.
void BM_BareEmbreePrimaryPackets(benchmark::State& state) {
  Renderer renderer(quiet(1));
  renderer.load(gridScene(kCopies, 256, 256, 1, false));
  const RenderScene& scene = renderer.scene();
  const std::vector<RTCRayHit16> packets = primaryPackets(scene);
  alignas(64) int valid[kPacket];
  std::fill(valid, valid + kPacket, -1);
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  context.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
  size_t hits = 0;
  for (auto _ : state) {
    for (const RTCRayHit16& packet : packets) {
      alignas(64) RTCRayHit16 rh = packet;
      rtcIntersect16(valid, scene.geometry->scene, &context, &rh);
      hits += rh.hit.geomID[0] != RTC_INVALID_GEOMETRY_ID;
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * packets.size() * kPacket);
}
BENCHMARK(BM_BareEmbreePrimaryPackets)->Unit(benchmark::kMillisecond)->UseRealTime();

// What the packet floor spends on copying its packets before each trace,
// to see how much of the floor is not tracing.
void BM_BarePrimaryPacketCopies(benchmark::State& state) {
  Renderer renderer(quiet(1));
  renderer.load(gridScene(kCopies, 256, 256, 1, false));
  const std::vector<RTCRayHit16> packets = primaryPackets(renderer.scene());
  size_t sum = 0;
  for (auto _ : state) {
    for (const RTCRayHit16& packet : packets) {
      alignas(64) RTCRayHit16 rh = packet;
      benchmark::DoNotOptimize(rh);
      sum += rh.hit.geomID[0];
    }
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_BarePrimaryPacketCopies)->Unit(benchmark::kMillisecond)->UseRealTime();

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
// CPU time is that of the whole process, both threads' work.
BENCHMARK(BM_SamplesPerSecond)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()
    ->MeasureProcessCPUTime();

// From submitUpdate of a camera move to the first complete in-memory image
// of the new state, at 512x512 and one sample per pixel: with `full` false
// the quick direct-light image shown first, with `full` true the first
// full-path sample. The PNG of each image is written by the live thread
// after the image is published and is not included (see BM_WritePng512).
void BM_LiveCameraMoveLatency(benchmark::State& state) {
  const bool full = state.range(0) != 0;
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
    const uint64_t moved = renderer.state();
    if (full)
      renderer.waitForSamples(moved, 1, std::chrono::seconds(60));
    else
      renderer.waitForImage(moved, std::chrono::seconds(60));
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(took.count() / 1000);
    latencies.push_back(took.count());
    // Let the rest of the state's work finish, so every move starts alike.
    renderer.waitForSamples(moved, 1, std::chrono::seconds(60));
  }
  renderer.stopLive();
  std::remove(options.output.c_str());
  std::sort(latencies.begin(), latencies.end());
  state.counters["median_ms"] = latencies[latencies.size() / 2];
  state.counters["p90_ms"] = latencies[latencies.size() * 9 / 10];
}
BENCHMARK(BM_LiveCameraMoveLatency)->ArgName("full")->Arg(0)->Arg(1)->Iterations(40)
    ->UseManualTime()->Unit(benchmark::kMillisecond);

// What the live thread spends writing one 512x512 PNG after each image.
void BM_WritePng512(benchmark::State& state) {
  std::vector<float> pixels(512 * 512 * 3);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = float(i % 997) / 997.0f;
  std::string error;
  for (auto _ : state)
    writeImageAtomically("/tmp/pathtracer-bench-write.png", 512, 512, pixels, error);
  std::remove("/tmp/pathtracer-bench-write.png");
}
BENCHMARK(BM_WritePng512)->Unit(benchmark::kMillisecond);

// Full paths at 512x512, maxDepth 5, one thread: the renderer's pass against
// a bare loop that traces the same rays, recorded from that pass: its camera
// packets, then every bounce ray one by one and every shadow ray one by one.
// On the showcase scene (examples/pathtracer/showcase) and on the demo scene
// of the README (examples/pathtracer/wuson.optree.json).
struct Recorded {
  Renderer renderer{quiet(1)};
  RayLog rays;
  explicit Recorded(const std::string& file) {
    SceneTree tree = SceneTree::fromIterator(XoScenegraphIterator::getIteratorFromFile(file));
    tree.apply(GroupAttribute(Arbolite3::internal::attributeFromJsonText(R"({"/root": {
        "attributes": {"renderSettings": {"resolution": [512, 512], "maxDepth": 5}}}})")));
    renderer.load(tree);
    std::vector<float> sums(512 * 512 * 3);
    tbb::task_arena arena(1);
    const std::atomic<bool> never{false};
    arena.execute([&] {
      setRayLog(&rays);
      renderPass(renderer.scene(), 0, sums, arena, never);
      setRayLog(nullptr);
    });
  }
  size_t count() const { return 512 * 512 + rays.bounces.size() + rays.shadows.size(); }
};

Recorded& recorded(bool showcase) {
  if (showcase) {
    static Recorded* scene = [] {
      const std::string folder = "/tmp/pathtracer-bench-showcase-" + std::to_string(getpid());
      const std::string command = std::string("python3 " KINDLET_SOURCE_DIR
                                              "/examples/pathtracer/showcase/make_showcase.py ") +
                                  folder + " >/dev/null";
      if (std::system(command.c_str()) != 0) std::abort();
      return new Recorded(folder + "/showcase.optree.json");
    }();
    return *scene;
  }
  static Recorded scene(KINDLET_SOURCE_DIR "/examples/pathtracer/wuson.optree.json");
  return scene;
}

void fullPaths(benchmark::State& state, bool showcase) {
  Recorded& show = recorded(showcase);
  const RenderScene& scene = show.renderer.scene();
  std::vector<float> sums(512 * 512 * 3);
  tbb::task_arena arena(1);
  const std::atomic<bool> never{false};
  for (auto _ : state) renderPass(scene, 0, sums, arena, never);
  state.SetItemsProcessed(state.iterations() * show.count());
  state.counters["bounces"] = double(show.rays.bounces.size());
  state.counters["shadows"] = double(show.rays.shadows.size());
}

void bareRays(benchmark::State& state, bool showcase) {
  Recorded& show = recorded(showcase);
  const RenderScene& scene = show.renderer.scene();
  const CameraRays camera(scene, 0);
  alignas(64) RTCRayHit16 packet;
  alignas(64) int valid[kPacket];
  RTCIntersectContext coherent, incoherent;
  rtcInitIntersectContext(&coherent);
  rtcInitIntersectContext(&incoherent);
  coherent.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
  size_t hits = 0;
  for (auto _ : state) {
    for (int by = 0; by < 512; by += kPacketSide)
      for (int bx = 0; bx < 512; bx += kPacketSide) {
        camera.fill(bx, by, kPacketSide, kPacketSide, packet, valid);
        rtcIntersect16(valid, scene.geometry->scene, &coherent, &packet);
        hits += packet.hit.geomID[0] != RTC_INVALID_GEOMETRY_ID;
      }
    for (const RTCRayHit& ray : show.rays.bounces) {
      RTCRayHit rh = ray;
      rtcIntersect1(scene.geometry->scene, &incoherent, &rh);
      hits += rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
    }
    for (const RTCRay& ray : show.rays.shadows) {
      RTCRay r = ray;
      rtcOccluded1(scene.geometry->scene, &incoherent, &r);
      hits += r.tfar < 0;
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * show.count());
}

void BM_ShowcaseFullPaths(benchmark::State& state) { fullPaths(state, true); }
void BM_ShowcaseBareRays(benchmark::State& state) { bareRays(state, true); }
void BM_DemoFullPaths(benchmark::State& state) { fullPaths(state, false); }
void BM_DemoBareRays(benchmark::State& state) { bareRays(state, false); }
BENCHMARK(BM_ShowcaseFullPaths)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ShowcaseBareRays)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DemoFullPaths)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DemoBareRays)->Unit(benchmark::kMillisecond)->UseRealTime();

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
