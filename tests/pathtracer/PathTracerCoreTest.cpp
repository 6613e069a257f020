// The renderer in-process, against answers known without it: radiance in a
// uniform dome, irradiance from a point light, triangle counts of sample
// files, and what live updates do to the next pass.
#include <signal.h>
#include <sys/resource.h>

#include <Imath/half.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>
#include <filesystem>
#include <thread>
#include <tuple>

#include "CameraRays.h"
#include "ImageFile.h"
#include "MeshFile.h"
#include "Renderer.h"
#include "TestScenes.h"
#include "XoImageOut/ImageHost.h"

using namespace pathtracer;
using Arbolite3::internal::XoAttribute::IntAttribute;

namespace {

const char* kUnitCube = R"({"name": "cube", "type": "polymesh", "attributes": {
  "geometry": {"point": {"P": [-1.0,-1.0,-1.0, 1.0,-1.0,-1.0, 1.0,1.0,-1.0, -1.0,1.0,-1.0,
                               -1.0,-1.0,1.0, 1.0,-1.0,1.0, 1.0,1.0,1.0, -1.0,1.0,1.0]},
               "poly": {"faceCounts": [4, 4, 4, 4, 4, 4],
                        "vertexList": [0,3,2,1, 4,5,6,7, 0,1,5,4, 2,3,7,6, 1,2,6,5, 0,4,7,3]}},
  "material": {"params": {"baseColor": [1.0, 1.0, 1.0]}}}})";

const char* kCamera = R"({"name": "cam", "type": "camera", "attributes": {
  "geometry": {"fov": 60.0}, "xform": {"translate": [0.0, 0.0, 4.0]}}})";

// Mean of one channel over the central 16x16 pixels of a 48x48 image.
double centralMean(const std::vector<float>& image, int channel) {
  double sum = 0;
  for (int y = 16; y < 32; ++y)
    for (int x = 16; x < 32; ++x) sum += image[3 * (y * 48 + x) + channel];
  return sum / 256;
}

}  // namespace

// A white convex object inside a uniform dome reflects exactly the dome's
// radiance, whatever the direction: the image is flat at that value. The
// dome's light reaches the first hit even when paths stop there.
TEST(PathTracer, WhiteObjectInUniformDomeMatchesTheDome) {
  for (const char* depth : {"1", "8"}) {
    Renderer renderer(quiet());
    renderer.load(sceneOf(R"({"resolution": [48, 48], "samples": 8, "maxDepth": )" +
                              std::string(depth) + "}",
                          std::string(kUnitCube) + "," + kCamera + R"(, {"name": "sky", "type": "light",
      "attributes": {"material": {"lightShader": "domeLight",
                                   "params": {"color": [0.5, 0.25, 1.0], "intensity": 2.0}}}})"));
    ASSERT_TRUE(renderer.renderBatch());
    const std::vector<float> image = renderer.image();
    // Only the cube is seen in the middle of the image.
    EXPECT_NEAR(centralMean(image, 0), 1.0, 0.01) << depth;
    EXPECT_NEAR(centralMean(image, 1), 0.5, 0.005) << depth;
    EXPECT_NEAR(centralMean(image, 2), 2.0, 0.02) << depth;
  }
}

// A white plane under a point light of intensity I at height h: radiance
// (1/pi) I h / r^3 at distance r from the light (inverse square times cosine).
TEST(PathTracer, PointLightFollowsInverseSquareAndCosineLaws) {
  const float h = 2.0f, intensity = 10.0f;
  Renderer renderer(quiet());
  renderer.load(sceneOf(R"({"resolution": [128, 128], "samples": 16, "maxDepth": 1})",
                        R"({"name": "plane", "type": "polymesh", "attributes": {"geometry": {
        "point": {"P": [-50.0,0.0,-50.0, 50.0,0.0,-50.0, 50.0,0.0,50.0, -50.0,0.0,50.0]},
        "poly": {"faceCounts": [4], "vertexList": [0,3,2,1]}},
        "material": {"params": {"baseColor": [1.0, 1.0, 1.0]}}}},
      {"name": "cam", "type": "camera", "attributes": {
        "geometry": {"projection": "orthographic", "orthographicWidth": 8.0},
        "xform": {"translate": [0.0, 10.0, 0.0], "rotate": [-90.0, 0.0, 0.0]}}},
      {"name": "bulb", "type": "light", "attributes": {"xform": {"translate": [0.0, 2.0, 0.0]},
        "material": {"lightShader": "pointLight", "params": {"intensity": 10.0}}}})"));
  renderer.renderBatch();
  int width = 0;
  const std::vector<float> image = renderer.image(&width);
  // Pixel columns along the row through the light's foot, from r = h outward.
  for (int column : {64, 80, 96, 112, 127}) {
    const float x = (column + 0.5f - 64) * 8.0f / 128;
    const float r = std::sqrt(x * x + h * h);
    const float expected = intensity * h / (r * r * r) / float(M_PI);
    const float got = 0.5f * (image[3 * (63 * width + column)] + image[3 * (64 * width + column)]);
    EXPECT_NEAR(got, expected, 0.015f * expected) << "column " << column << ", r " << r;
  }
}

// The first pass's rays of a part-filled packet on an 8x4 image (sub-pixel
// offset (1/2, 1/3), the shorter side spanning [-1, 1]): perspective
// directions of unit depth with the clipping distances as tnear and tfar,
// orthographic origins across the image plane.
TEST(PathTracer, CameraRaysThroughPixelsOfAPacket) {
  for (const char* projection : {"perspective", "orthographic"}) {
    const bool orthographic = projection[0] == 'o';
    Renderer renderer(quiet());
    renderer.load(sceneOf(R"({"resolution": [8, 4]})",
                          R"({"name": "cam", "type": "camera", "attributes": {"geometry": {
        "fov": 90.0, "near": 0.5, "far": 100.0, "orthographicWidth": 4.0, "projection": ")" +
                              std::string(projection) +
                              R"("}, "xform": {"translate": [1.0, 0.0, 4.0]}}})"));
    alignas(64) RTCRayHit16 packet;
    alignas(64) int valid[kPacket];
    CameraRays(renderer.scene(), 0).fill(4, 0, 2, 3, packet, valid);
    for (int i = 0; i < kPacket; ++i) {
      const int column = i % 4, row = i / 4;
      EXPECT_EQ(valid[i] != 0, column < 2 && row < 3) << i;
      const float sx = (2 * (4 + column + 0.5f) - 8) / 4, sy = (4 - 2 * (row + 1 / 3.0f)) / 4;
      const float expected[] = {orthographic ? 1 + 2 * sx : 1, orthographic ? 2 * sy : 0, 4,
                                orthographic ? 0 : sx, orthographic ? 0 : sy, -1, 0.5f, 100};
      const float got[] = {packet.ray.org_x[i], packet.ray.org_y[i], packet.ray.org_z[i],
                           packet.ray.dir_x[i], packet.ray.dir_y[i], packet.ray.dir_z[i],
                           packet.ray.tnear[i], packet.ray.tfar[i]};
      for (int k = 0; k < 8; ++k) EXPECT_NEAR(got[k], expected[k], 1e-5f) << projection << i << k;
    }
  }
}

// Kindlets that split the sample sequence by offset and stride render
// disjoint samples: their sample-weighted mean is the image of the whole
// sequence, which it would not be if any sample were rendered twice.
TEST(PathTracer, SampleSharesMergeIntoTheWholeSequence) {
  // A floor in the cube's shadow makes every sample differ.
  const std::string lit = std::string(kUnitCube) + ", " + kCamera + R"(, {"name": "sky",
      "type": "light", "attributes": {"material": {"lightShader": "domeLight"}}},
      {"name": "floor", "type": "polymesh", "attributes": {"geometry": {
        "point": {"P": [-9.0,-1.5,-9.0, 9.0,-1.5,-9.0, 9.0,-1.5,9.0, -9.0,-1.5,9.0]},
        "poly": {"faceCounts": [4], "vertexList": [3,2,1,0]}}}})";
  auto render = [&](int offset, int stride, int* samples) {
    RendererOptions options = quiet();
    options.sampleOffset = offset;
    options.sampleStride = stride;
    Renderer renderer(options);
    renderer.load(sceneOf(R"({"resolution": [24, 24], "samples": 5})", lit));
    renderer.renderBatch();
    return renderer.image(nullptr, samples);
  };
  int whole = 0, first = 0, second = 0;
  const std::vector<float> all = render(0, 1, &whole), a = render(0, 2, &first),
                           b = render(1, 2, &second);
  ASSERT_EQ(std::make_tuple(whole, first, second), std::make_tuple(5, 3, 2));
  double worst = 0;
  for (size_t i = 0; i < all.size(); ++i)
    worst = std::max(worst, std::abs((3.0 * a[i] + 2.0 * b[i]) / 5.0 - all[i]));
  EXPECT_LT(worst, 1e-4);
  EXPECT_NE(a, b);
  RendererOptions bad;
  bad.sampleOffset = 2;
  bad.sampleStride = 2;
  EXPECT_NE(shareError(bad), "");
}

TEST(PathTracer, MeshFilesLoadWithTheirTriangleCounts) {
  const struct { const char* file; size_t triangles; } cases[] = {
      {"/usr/share/assimp/models/PLY/Wuson.ply", 3732},  // 3732 triangles in its header
      {"/usr/share/assimp/models/OBJ/box.obj", 12},      // six quads
  };
  for (const auto& c : cases) EXPECT_EQ(loadMeshFile(c.file).triangleCount(), c.triangles) << c.file;
  EXPECT_THROW(loadMeshFile("/nonexistent/model.ply"), std::runtime_error);
}

TEST(PathTracer, UpdatesAddMergeAndRemoveLocations) {
  SceneTree tree = sceneOf("{}", R"({"name": "g", "children": [{"name": "m", "type": "polymesh",
      "attributes": {"xform": {"translate": [1.0, 2.0, 3.0], "scale": 2.0}}}]})");
  const UpdateEffect effect = tree.apply(update(R"({
      "/root/g/m": {"attributes": {"xform": {"scale": null, "rotate": [0.0, 90.0, 0.0]}}},
      "/root/new": {"type": "light"},
      "/root/orphan/x": {"type": "light"},
      "/root/untyped": {"attributes": {"a": 1}},
      "relative": {"type": "light"}})"));
  EXPECT_TRUE(effect.geometryChanged);
  const GroupAttribute xform(tree.find("/root/g/m")->attributes.getChildByName("xform"));
  EXPECT_EQ(xform.getNumberOfChildren(), 2u);  // translate kept, scale gone, rotate added
  EXPECT_TRUE(xform.getChildByName("translate").isValid());
  EXPECT_NE(tree.find("/root/new"), nullptr);
  EXPECT_EQ(tree.find("/root/orphan/x"), nullptr);
  EXPECT_EQ(tree.find("/root/untyped"), nullptr);
  EXPECT_EQ(tree.find("/root")->children.size(), 2u);

  tree.apply(update(R"({"/root/g": {"remove": 1}})"));
  EXPECT_EQ(tree.find("/root/g/m"), nullptr);
  EXPECT_EQ(tree.size(), 2u);
  // Lights, cameras and materials leave the triangles as they are, unless
  // they carry meshes that a transform moves.
  EXPECT_FALSE(tree.apply(update(R"({"/root/new": {"attributes": {"mute": 1}}})")).geometryChanged);
  const char* move = R"(": {"attributes": {"xform": {"translate": [1.0, 0.0, 0.0]}}}})";
  EXPECT_FALSE(tree.apply(update(std::string("{\"/root/new") + move)).geometryChanged);
  SceneTree carried = sceneOf("{}", R"({"name": "cam", "type": "camera", "children": [
      {"name": "m", "type": "polymesh"}]}, {"name": "key", "type": "light", "children": [
      {"name": "g", "children": [{"name": "m", "type": "polymesh"}]}]})");
  for (const char* path : {"/root", "/root/cam", "/root/key"})
    EXPECT_TRUE(carried.apply(update(std::string("{\"") + path + move)).geometryChanged) << path;
}

class LiveRender : public testing::Test {
 protected:
  const std::string settings = R"({"resolution": [32, 24], "samples": 100000, "maxDepth": 3})";
  const std::string scene = std::string(kUnitCube) + "," + kCamera + R"(, {"name": "key",
      "type": "light", "attributes": {"xform": {"translate": [3.0, 4.0, 5.0]},
      "material": {"lightShader": "pointLight", "params": {"intensity": 40.0}}}})";
};

// The first pass after a camera move shows the moved camera's view: the same
// image, sample for sample, as a fresh render of the moved scene.
TEST_F(LiveRender, CameraMoveChangesTheNextPass) {
  Renderer live(quiet());
  live.load(sceneOf(settings, scene));
  live.startLive();
  ASSERT_TRUE(live.waitForSamples(live.state(), 2, std::chrono::seconds(30)));
  const std::vector<float> before = live.image();

  const char* move = R"({"/root/cam": {"attributes": {"xform": {"translate": [1.5, 0.5, 4.0]}}}})";
  live.submitUpdate(update(move));
  ASSERT_TRUE(live.hasQueuedUpdates());
  live.applyQueuedUpdates();
  EXPECT_FALSE(live.hasQueuedUpdates());
  const uint64_t moved = live.state();
  ASSERT_TRUE(live.waitForSamples(moved, 1, std::chrono::seconds(30)));
  live.stopLive();
  int samples = 0;
  const std::vector<float> after = live.image(nullptr, &samples);
  RendererOptions same = quiet();
  same.samples = samples;

  SceneTree expectedTree = sceneOf(settings, scene);
  expectedTree.apply(update(move));
  Renderer expected(same);
  expected.load(expectedTree);
  expected.renderBatch();
  EXPECT_EQ(after, expected.image());
  double difference = 0;
  for (size_t i = 0; i < after.size(); ++i) difference += std::fabs(after[i] - before[i]);
  EXPECT_GT(difference / double(after.size()), 0.01);
}

// The first image after a move comes from a cheap direct-light pass and
// already shows the moved camera; the full-path samples that follow replace
// it and never include it.
TEST_F(LiveRender, QuickImageFirstThenFullPaths) {
  const char* move = R"({"/root/cam": {"attributes": {"xform": {"translate": [1.5, 0.5, 4.0]}}}})";
  // A floor under the cube, so that bounces add light the quick pass lacks.
  const std::string lit = scene + R"(, {"name": "sky", "type": "light", "attributes": {
      "material": {"lightShader": "domeLight", "params": {"intensity": 0.5}}}},
      {"name": "floor", "type": "polymesh", "attributes": {"geometry": {
        "point": {"P": [-9.0,-1.5,-9.0, 9.0,-1.5,-9.0, 9.0,-1.5,9.0, -9.0,-1.5,9.0]},
        "poly": {"faceCounts": [4], "vertexList": [3,2,1,0]}}}})";
  auto batch = [&](const char* depthSettings) {
    SceneTree tree = sceneOf(depthSettings, lit);
    tree.apply(update(move));
    RendererOptions one = quiet();
    one.samples = 1;
    Renderer renderer(one);
    renderer.load(tree);
    renderer.renderBatch();
    return renderer.image();
  };
  const std::vector<float> quick = batch(R"({"resolution": [32, 24], "maxDepth": 1})");
  const std::vector<float> full = batch(settings.c_str());
  ASSERT_NE(quick, full);

  RendererOptions options = quiet();
  options.samples = 1;
  Renderer live(options);
  live.load(sceneOf(settings, lit));
  live.startLive();
  ASSERT_TRUE(live.waitForSamples(live.state(), 1, std::chrono::seconds(30)));
  live.submitUpdate(update(move));
  live.applyQueuedUpdates();
  const uint64_t moved = live.state();
  ASSERT_TRUE(live.waitForImage(moved, std::chrono::seconds(30)));
  int samples = -1;
  const std::vector<float> first = live.image(nullptr, &samples);
  // The full pass may already have replaced the quick image.
  EXPECT_EQ(first, samples == 0 ? quick : full) << samples;
  ASSERT_TRUE(live.waitForSamples(moved, 1, std::chrono::seconds(30)));
  EXPECT_EQ(live.image(), full);
  live.stopLive();
}

// Updates from several threads while a pass runs: one apply takes them all,
// each thread's in its own order.
TEST_F(LiveRender, NoUpdateIsLostDuringAPass) {
  Renderer live(quiet(1));
  live.load(sceneOf(settings, scene));
  live.startLive();
  constexpr int kThreads = 4, kPerThread = 50;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([&, t] {
      const std::string path = "/root/t" + std::to_string(t);
      live.submitUpdate(update("{\"" + path + "\": {\"type\": \"group\"}}"));
      for (int i = 1; i < kPerThread; ++i)
        live.submitUpdate(update("{\"" + path + "\": {\"attributes\": {\"n\": " +
                                 std::to_string(i) + "}}}"));
    });
  for (std::thread& sender : senders) sender.join();
  live.applyQueuedUpdates();
  EXPECT_FALSE(live.hasQueuedUpdates());
  EXPECT_TRUE(live.waitForSamples(live.state(), 1, std::chrono::seconds(30)));
  live.stopLive();
  for (int t = 0; t < kThreads; ++t) {
    const Location* location = live.tree().find("/root/t" + std::to_string(t));
    ASSERT_NE(location, nullptr) << t;
    EXPECT_EQ(IntAttribute(location->attributes.getChildByName("n")).getValue(), kPerThread - 1);
  }
}

// A file size limit of 64 bytes: a writer that buffers everything fails only
// when it flushes at its close. Reported with its reason; the old image stays.
TEST(ImageFile, AWriteThatFailsAtTheEndIsReportedAndTheOldImageStays) {
  const std::string path = std::filesystem::temp_directory_path() / ("image-" + std::to_string(::getpid()) + ".png");
  const std::vector<float> pixels(16 * 16 * 3, 0.5f);
  std::string error;
  ASSERT_TRUE(writeImageAtomically(path, 16, 16, pixels, error)) << error;
  const auto before = std::filesystem::file_size(path);
  struct rlimit saved;
  ::getrlimit(RLIMIT_FSIZE, &saved);
  const struct rlimit small = {64, saved.rlim_max};
  ::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_FALSE(writeImageAtomically(path, 16, 16, pixels, error));
  ::setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_NE(error.find("File too large"), std::string::npos) << error;
  EXPECT_EQ(std::filesystem::file_size(path), before);
  std::filesystem::remove(path);
}

// Beauty and every output are images of their own, and only those taken are
// published: each holds its own channels of the pass.
TEST(PathTracer, OutputsArePublishedAsImagesOfTheirOwn) {
  Renderer renderer(quiet());
  renderer.load(sceneOf(R"({"resolution": [8, 4], "samples": 2,
                            "outputs": ["diffuse", "depth", "lightGroups"]})",
                        std::string(kUnitCube) + "," + kCamera + R"(,
      {"name": "key", "type": "light", "attributes": {"lightGroup": "key",
        "xform": {"translate": [1.0, 2.0, 3.0]}, "material": {"lightShader": "pointLight"}}})"));
  std::map<std::string, XoImageOut::PublishedImage> images;
  for (const XoImageOut::PublishedImage& image : XoImageOut::openImages())
    images.emplace(image.description().name, image);
  std::vector<std::string> names;
  for (const auto& named : images) names.push_back(named.first);
  ASSERT_EQ(names, (std::vector<std::string>{"beauty", "depth", "diffuse", "lightGroup.key"}));
  std::string error;
  ASSERT_TRUE(images.at("depth").want(error) && images.at("lightGroup.key").want(error)) << error;
  ASSERT_TRUE(renderer.renderBatch());
  const std::vector<float> all = renderer.outputs();
  const OutputLayout& layout = renderer.scene().layout;
  XoImageOut::TakenPass pass;
  EXPECT_FALSE(images.at("beauty").take(pass));
  EXPECT_FALSE(images.at("diffuse").take(pass));
  using Output = std::tuple<std::string, int, int>;  // name, first channel, channels
  for (const auto& [name, first, count] :
       {Output{"depth", layout.depth, 1}, Output{"lightGroup.key", layout.groups, 3}}) {
    XoImageOut::PublishedImage& image = images.at(name);
    ASSERT_TRUE(image.take(pass)) << name;
    EXPECT_EQ(pass.samples, 2u);
    ASSERT_EQ(pass.bytes, size_t(8 * 4 * count) * sizeof(Imath::half));
    const auto* halves = reinterpret_cast<const Imath::half*>(pass.pixels);
    double sum = 0;
    for (int p = 0; p < 8 * 4; ++p)
      for (int c = 0; c < count; ++c) {
        const float expected = all[size_t(p * layout.channels + first + c)];
        EXPECT_NEAR(float(halves[p * count + c]), expected, 1e-3f * (1 + expected)) << name;
        sum += expected;
      }
    EXPECT_GT(sum, 0) << name;
  }
}
