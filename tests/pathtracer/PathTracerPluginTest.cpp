// The "pathtracer" plug-in as users run it: the installed kindlet renders a
// batch image, and kindlet-control drives a live render whose update shows
// in the image it leaves behind.
#include <gtest/gtest.h>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>

#include "KindletTestSupport.h"

using namespace kindlettest;

namespace {

// A floor lit by one point light at `light`; `extra` adds attributes to both lights.
std::string scene(const std::string& light, const std::string& extra = "",
                  const std::string& settings = R"("resolution": [24, 16], "samples": 4, "frame": 3)") {
  return R"({"optree": 1, "root": {"type": "root", "attributes": {"renderSettings": {
      )" + settings + R"(}},
    "children": [
      {"name": "cam", "type": "camera", "attributes": {"geometry": {"fov": 50.0},
        "xform": {"translate": [0.0, 2.0, 6.0], "rotate": [-15.0, 0.0, 0.0]}}},
      {"name": "bulb", "type": "light", "attributes": {"xform": {"translate": )" + light + R"(},
        "material": {"lightShader": "pointLight", "params": {"intensity": 30.0}})" + extra + R"(}},
      {"name": "fill", "type": "light", "attributes": {)" +
         (extra.empty() ? std::string() : extra.substr(1) + ",") + R"(
        "material": {"lightShader": "distantLight", "params": {"intensity": 0.0}}}},
      {"name": "floor", "type": "polymesh", "attributes": {"geometry": {
        "point": {"P": [-5.0,0.0,-5.0, 5.0,0.0,-5.0, 5.0,0.0,5.0, -5.0,0.0,5.0]},
        "poly": {"faceCounts": [4], "vertexList": [3,2,1,0]}}}}]}})";
}

// Width, height and the brightest channel value of an image file.
struct ImageFacts { int width = 0, height = 0; float brightest = -1; };

ImageFacts readImage(const std::string& path) {
  ImageFacts facts;
  OIIO::ImageBuf image(path);
  if (!image.read(0, 0, true, OIIO::TypeDesc::FLOAT)) return facts;
  const OIIO::ROI all = image.roi();
  std::vector<float> pixels(all.npixels() * size_t(all.nchannels()));
  if (image.get_pixels(all, OIIO::TypeDesc::FLOAT, pixels.data())) {
    facts.width = all.width();
    facts.height = all.height();
    facts.brightest = *std::max_element(pixels.begin(), pixels.end());
  }
  return facts;
}

std::vector<std::string> linesWith(const std::string& text, const std::string& part) {
  std::vector<std::string> found;
  for (const std::string& line : splitLines(text))
    if (line.find(part) != std::string::npos) found.push_back(line);
  return found;
}

}  // namespace

TEST(PathTracerPlugin, BatchRenderWritesTheFramesImage) {
  TempDir dir;
  const std::string file = dir.write("scene.optree.json", scene("[0.0, 3.0, 0.0]", R"(, "glow": 1)"));
  const RunResult result = runKindlet(
      {"-selvaneRoot", testRoot(), "-tempDir", dir.path(), "-arbolite3OpTree", file, "-renderer",
       "pathtracer", "-renderMethodName", "diskRender", "-outputImage", dir.file("lit.##.exr")});
  ASSERT_EQ(result.exitStatus, 0) << result.err;

  const ImageFacts image = readImage(dir.file("lit.03.exr"));
  EXPECT_EQ(image.width, 24);
  EXPECT_EQ(image.height, 16);
  EXPECT_GT(image.brightest, 0.1f);
  // Progress at most every 10%, and the unknown name once for both lights.
  EXPECT_LE(linesWith(result.err, "Rendered ").size(), 9u);
  EXPECT_EQ(linesWith(result.err, "Unknown attribute \"glow\"").size(), 1u) << result.err;
}

// The light starts under the floor, so every pass is black until the update
// moves it above.
TEST(PathTracerPlugin, LiveUpdateShowsInTheWrittenImage) {
  TempDir dir;
  const std::string file = dir.write("scene.optree.json", scene("[0.0, -3.0, 0.0]"));
  const std::string script = dir.write("session.txt",
      "sleep 300\n"
      "update {\"/root/bulb\": {\"attributes\": {\"xform\": {\"translate\": [0.0, 3.0, 0.0]}}}}\n"
      "sleep 1500\n"
      "stop\n");
  const RunResult result = run(
      testRoot() + "/bin/kindlet-control",
      {testRoot() + "/bin/kindlet-control", "--start", "--script", script, "--timeout", "60", "--",
       "-selvaneRoot", testRoot(), "-tempDir", dir.path(), "-arbolite3OpTree", file, "-renderer",
       "pathtracer", "-renderMethodName", "liveRender", "-outputImage", dir.file("live.png")});
  ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_GT(readImage(dir.file("live.png")).brightest, 0.1f) << result.err;
  EXPECT_TRUE(linesWith(result.err, "ERROR").empty()) << result.err;
}

// What cannot be rendered or written is an error on the renderer's channel,
// and a batch render then leaves no image.
TEST(PathTracerPlugin, BadSettingsAndUnwritableImagesAreErrors) {
  const struct { std::string settings, output, error; } cases[] = {
      {R"("resolution": [0, 0])", "x.exr", "Invalid renderSettings.resolution [0, 0]"},
      {R"("resolution": [-64, 48])", "x.exr", "Invalid renderSettings.resolution [-64, 48]"},
      {R"("resolution": "big")", "x.exr", "Invalid renderSettings.resolution \"big\""},
      {R"("samples": 0)", "x.exr", "Invalid renderSettings.samples 0"},
      {R"("maxDepth": -2)", "x.exr", "Invalid renderSettings.maxDepth -2"},
      {R"("resolution": [1000000, 1000000])", "x.exr",
       "Invalid renderSettings.resolution [1000000, 1000000]: its image needs"},
      {R"("resolution": [8, 8], "samples": 1)", "missing/x.exr", "Cannot write image"},
  };
  for (const auto& c : cases) {
    TempDir dir;
    const std::string text = scene("[0.0, 3.0, 0.0]", "", c.settings);
    const RunResult result = runKindlet(
        {"-selvaneRoot", testRoot(), "-tempDir", dir.path(), "-arbolite3OpTree",
         dir.write("scene.optree.json", text), "-renderer", "pathtracer", "-renderMethodName",
         "diskRender", "-outputImage", dir.file(c.output)});
    EXPECT_EQ(linesWith(result.err, "[ERROR PathTracer] " + c.error).size(), 1u) << result.err;
    EXPECT_EQ(readImage(dir.file(c.output)).width, 0) << c.settings;
  }
}

// Three scene files without a frame of their own would all write frame 1's
// image; the second and third are refused instead of overwriting the first.
TEST(PathTracerPlugin, SequenceNeverOverwritesItsOwnImages) {
  TempDir dir;
  const std::string text = scene("[0.0, 3.0, 0.0]", "", R"("resolution": [24, 16], "samples": 4)");
  for (int frame = 1; frame <= 3; ++frame)
    dir.write("shot.00000" + std::to_string(frame) + ".json", text);
  const RunResult result = runKindlet(
      {"-selvaneRoot", testRoot(), "-tempDir", dir.path(), "-arbolite3OpTree",
       dir.file("shot.*.json"), "-t", "1-3", "-renderer", "pathtracer", "-renderMethodName",
       "diskRender", "-outputImage", dir.file("img.####.exr")});
  EXPECT_EQ(linesWith(result.err, "[ERROR PathTracer] Nothing rendered: image \"" +
                                      dir.file("img.0001.exr") + "\" was already written").size(),
            2u) << result.err;
  EXPECT_EQ(readImage(dir.file("img.0001.exr")).width, 24);
}

// Outputs go into the EXR as named channels, beside beauty's RGB.
TEST(PathTracerPlugin, OutputsAreChannelsOfTheExr) {
  TempDir dir;
  const RunResult result = runKindlet(
      {"-selvaneRoot", testRoot(), "-tempDir", dir.path(), "-arbolite3OpTree",
       dir.write("scene.optree.json",
                 scene("[0.0, 3.0, 0.0]", R"(, "lightGroup": "key")",
                       R"("resolution": [24, 16], "samples": 1, "outputs": ["depth", "lightGroups"])")),
       "-renderer", "pathtracer", "-renderMethodName", "diskRender", "-outputImage",
       dir.file("layers.exr")});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  OIIO::ImageBuf layers(dir.file("layers.exr"));
  ASSERT_TRUE(layers.init_spec(layers.name(), 0, 0)) << result.err;
  std::vector<std::string> names;
  for (int i = 0; i < layers.nchannels(); ++i) names.push_back(layers.nativespec().channel_name(i));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"B", "G", "R", "Z", "key.B", "key.G", "key.R"}));
}
