// Materials and lights against answers known without the renderer: energy
// in a uniform dome, and sampling that converges faster than the plain way.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>

#include "TestScenes.h"
#include "Textures.h"

using namespace pathtracer;

namespace {

// A 200 x 200 floor at y = 0 facing up, with these material parameters.
std::string floorOf(const std::string& params) {
  return R"({"name": "floor", "type": "polymesh", "attributes": {"geometry": {
      "point": {"P": [-100.0,0.0,-100.0, 100.0,0.0,-100.0, 100.0,0.0,100.0, -100.0,0.0,100.0]},
      "poly": {"faceCounts": [4], "vertexList": [3,2,1,0]}}, "material": {"params": )" +
         params + "}}}";
}

// An orthographic camera 10 units from the origin, `degrees` from straight down.
std::string cameraAt(double degrees) {
  const double r = degrees * M_PI / 180;
  return R"({"name": "cam", "type": "camera", "attributes": {"geometry": {
      "projection": "orthographic", "orthographicWidth": 0.5}, "xform": {"translate": [0.0, )" +
         std::to_string(10 * std::cos(r)) + ", " + std::to_string(10 * std::sin(r)) +
         R"(], "rotate": [)" + std::to_string(degrees - 90) + ", 0.0, 0.0]}}}";
}

std::string dome(const std::string& params) {
  return R"({"name": "sky", "type": "light", "attributes": {"material": {
      "lightShader": "domeLight", "params": )" + params + "}}}";
}

std::vector<float> render(const std::string& settings, const std::string& children,
                          RendererOptions options = quiet()) {
  Renderer renderer(options);
  renderer.load(sceneOf(settings, children));
  EXPECT_TRUE(renderer.renderBatch());
  return renderer.image();
}

double mean(const std::vector<float>& image) {
  double sum = 0;
  for (size_t i = 0; i < image.size(); i += 3) sum += image[i];
  return sum / double(image.size() / 3);
}

double rmse(const std::vector<float>& a, const std::vector<float>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(sum / double(a.size()));
}

// What a surface returns toward a camera `degrees` from its normal, under a
// dome of radiance 1: its directional albedo.
double albedo(const std::string& params, double degrees) {
  return mean(render(R"({"resolution": [16, 16], "samples": 64, "maxDepth": 1})",
                     floorOf(params) + "," + cameraAt(degrees) + "," + dome("{}")));
}

}  // namespace

// A smooth white conductor returns the dome exactly; a rough one loses what
// single scattering between microfacets loses (the table in the docs, from a
// quadrature of the model); no material returns more than it receives.
TEST(Shading, WhiteFurnace) {
  for (double degrees : {0.0, 60.0})
    EXPECT_NEAR(albedo(R"({"metallic": 1.0, "baseColor": 1.0})", degrees), 1.0, 1e-4);
  const struct { double roughness, degrees, expected; } rough[] = {
      {0.5, 0, 0.9158}, {0.5, 60, 0.8573}, {1.0, 0, 0.3069}, {1.0, 60, 0.4507}};
  for (const auto& c : rough)
    EXPECT_NEAR(albedo(R"({"metallic": 1.0, "baseColor": 1.0, "roughness": )" +
                           std::to_string(c.roughness) + "}",
                       c.degrees),
                c.expected, 0.01)
        << c.roughness << " " << c.degrees;
  for (const char* params :
       {R"({"baseColor": 1.0, "roughness": 0.5})",
        R"({"baseColor": 1.0, "specular": 1.0})",
        R"({"baseColor": 1.0, "specular": 1.0, "roughness": 0.3, "ior": 2.5})",
        R"({"baseColor": 1.0, "specular": 1.0, "roughness": 1.0})",
        R"({"baseColor": 1.0, "metallic": 0.5, "specular": 1.0, "roughness": 0.2})",
        R"({"baseColor": 1.0, "transmission": 1.0})",
        R"({"baseColor": 1.0, "transmission": 1.0, "roughness": 0.3})"})
    for (double degrees : {0.0, 60.0, 85.0}) {
      const double returned = albedo(params, degrees);
      EXPECT_LE(returned, 1.005) << params << " " << degrees;
      EXPECT_GT(returned, 0.3) << params << " " << degrees;
    }
}

// Clear glass, closed, in a uniform dome: whatever the rays do inside, all
// the light comes out again.
TEST(Shading, GlassSphereInUniformDomeMatchesTheDome) {
  std::string points, faces;
  const int rings = 24, segments = 48;
  for (int i = 0; i <= rings; ++i)
    for (int j = 0; j < segments; ++j) {
      const double theta = M_PI * i / rings, phi = 2 * M_PI * j / segments;
      points += (points.empty() ? "" : ",") + std::to_string(std::sin(theta) * std::cos(phi)) +
                "," + std::to_string(std::cos(theta)) + "," +
                std::to_string(std::sin(theta) * std::sin(phi));
      if (i == rings) continue;
      const int a = i * segments + j, b = i * segments + (j + 1) % segments;
      for (int k : {a, b, b + segments, a + segments})
        faces += (faces.empty() ? "" : ",") + std::to_string(k);
    }
  const std::string sphere = R"({"name": "ball", "type": "polymesh", "attributes": {
      "geometry": {"point": {"P": [)" + points + R"(], "N": [)" + points + R"(]},
      "poly": {"vertexList": [)" + faces + R"(], "faceCounts": [)" +
      [&] { std::string c = "4"; for (int f = 1; f < rings * segments; ++f) c += ",4"; return c; }() +
      R"(]}}, "material": {"params": {"baseColor": 1.0, "transmission": 1.0, "ior": 1.5}}}})";
  const std::vector<float> image = render(
      R"({"resolution": [16, 16], "samples": 64, "maxDepth": 24})",
      sphere + "," + cameraAt(0) + "," + dome(R"({"intensity": 2.0})"));
  EXPECT_NEAR(mean(image), 2.0, 0.02);
}

// A map with a small bright sun over a white floor: sampling the map by its
// brightness beats sampling the hemisphere by far at equal samples.
TEST(Shading, DomeImageIsSampledByBrightness) {
  const std::string file = testing::TempDir() + "/sun.exr";
  std::vector<float> map(64 * 32 * 3, 0.1f);
  for (int c = 0; c < 3; ++c) map[3 * (6 * 64 + 40) + c] = 4000.0f;
  auto out = OIIO::ImageOutput::create(file);
  ASSERT_TRUE(out && out->open(file, OIIO::ImageSpec(64, 32, 3, OIIO::TypeDesc::FLOAT)) &&
              out->write_image(OIIO::TypeDesc::FLOAT, map.data()) && out->close());
  const std::string scene = floorOf(R"({"baseColor": 1.0})") + "," + cameraAt(30) + "," +
                            dome(R"({"file": ")" + file + R"("})");
  const auto image = [&](int samples, bool uniform) {
    RendererOptions options = quiet();
    options.uniformDome = uniform;
    return render(R"({"resolution": [16, 16], "maxDepth": 1, "samples": )" +
                      std::to_string(samples) + "}",
                  scene, options);
  };
  const std::vector<float> reference = image(2048, false);
  // The sun is about 53 degrees above the horizon: irradiance 1/pi of
  // 4000 * its solid angle * cos, plus the sky's 0.1.
  const double solidAngle = (2 * M_PI / 64) * (M_PI / 32) * std::sin(M_PI * 6.5 / 32);
  EXPECT_NEAR(mean(reference), 0.1 + 4000 * solidAngle * std::cos(M_PI * 6.5 / 32) / M_PI, 0.05);
  EXPECT_LE(rmse(image(4, false), reference), 0.25 * rmse(image(4, true), reference));
}

// A glossy floor under a small bright light and a large dim one: weighing
// light and surface sampling together is no worse than the better of them.
TEST(Shading, MultipleImportanceSamplingBeatsEitherStrategy) {
  const std::string rect = R"({"name": "NAME", "type": "light", "attributes": {
      "xform": {"translate": [X, 2.0, 0.0], "rotate": [-90.0, 0.0, 0.0]},
      "material": {"lightShader": "rectLight", "params": PARAMS}}})";
  auto light = [&](const char* name, const char* x, const char* params) {
    std::string s = rect;
    s.replace(s.find("NAME"), 4, name);
    s.replace(s.find("X"), 1, x);
    s.replace(s.find("PARAMS"), 6, params);
    return s;
  };
  const std::string scene =
      floorOf(R"({"baseColor": 1.0, "metallic": 1.0, "roughness": 0.3})") + "," +
      light("small", "-1.0", R"({"width": 0.1, "height": 0.1, "intensity": 500.0})") + "," +
      light("large", "1.0", R"({"width": 2.0, "height": 2.0, "intensity": 1.0})") + "," +
      R"({"name": "cam", "type": "camera", "attributes": {"geometry": {"fov": 70.0},
          "xform": {"translate": [0.0, 1.0, 3.0], "rotate": [-25.0, 0.0, 0.0]}}})";
  const auto image = [&](int samples, LightSampling sampling) {
    RendererOptions options = quiet();
    options.lightSampling = sampling;
    return render(R"({"resolution": [32, 24], "maxDepth": 1, "samples": )" +
                      std::to_string(samples) + "}",
                  scene, options);
  };
  const std::vector<float> reference = image(1024, LightSampling::kBoth);
  const double both = rmse(image(4, LightSampling::kBoth), reference);
  const double lights = rmse(image(4, LightSampling::kLightsOnly), reference);
  const double surfaces = rmse(image(4, LightSampling::kBsdfOnly), reference);
  EXPECT_LE(both, std::min(lights, surfaces)) << lights << " " << surfaces;
}

// A spot light lights its cone like a point light, fades over its soft edge
// and leaves the rest dark.
TEST(Shading, SpotLightConeAndSoftEdge) {
  const std::vector<float> image = render(
      R"({"resolution": [64, 64], "samples": 1, "maxDepth": 1})",
      floorOf(R"({"baseColor": 1.0})") + R"(, {"name": "spot", "type": "light", "attributes": {
        "xform": {"translate": [0.0, 1.0, 0.0], "rotate": [-90.0, 0.0, 0.0]},
        "material": {"lightShader": "spotLight",
                     "params": {"intensity": 3.14159265, "coneAngle": 90.0, "coneSoftness": 0.5}}}},
      {"name": "cam", "type": "camera", "attributes": {"geometry": {"projection": "orthographic",
        "orthographicWidth": 4.0}, "xform": {"translate": [2.0, 5.0, 0.0], "rotate": [-90.0, 0.0, 0.0]}}})");
  // Row 32 sees the floor along x from the light's foot, at z just off 0 (the
  // first pass samples a third down each pixel). Inside 22.5 degrees off the
  // spot's axis it lights like a point light (cos^3), past 45 not at all,
  // and it fades between.
  const double z = 2 * (1 - (32 + 1.0 / 3) / 32);
  for (int x = 0; x < 64; ++x) {
    const double r = std::hypot(4 * (x + 0.5) / 64, z), degrees = std::atan(r) * 180 / M_PI;
    const double point = std::pow(std::cos(std::atan(r)), 3);
    const float got = image[3 * (32 * 64 + x)];
    if (degrees < 22.5) EXPECT_NEAR(got, point, 1e-3 * point) << x;
    else if (degrees > 45) EXPECT_EQ(got, 0) << x;
    else EXPECT_TRUE(got > 0 && got < point) << x;
  }
}

// The camera sees a rectangle light or the dome only when asked to; a dome
// turned by its transform shows another part of its image.
TEST(Shading, LightsSeenByTheCameraAndTurnedDomes) {
  const std::string file = testing::TempDir() + "/columns.exr";
  const float columns[] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // red, green, blue across
  auto out = OIIO::ImageOutput::create(file);
  ASSERT_TRUE(out && out->open(file, OIIO::ImageSpec(3, 1, 3, OIIO::TypeDesc::FLOAT)) &&
              out->write_image(OIIO::TypeDesc::FLOAT, columns) && out->close());
  const auto seen = [&](const std::string& domeXform, const std::string& domeCamera,
                        const std::string& rectCamera) {
    return render(R"({"resolution": [2, 2], "samples": 1})",
                  R"({"name": "cam", "type": "camera", "attributes": {"geometry": {"fov": 1.0}}},
      {"name": "sky", "type": "light", "attributes": {"xform": {"rotate": [0.0, )" + domeXform +
                      R"(, 0.0]}, "material": {"lightShader": "domeLight", "params": {"file": ")" +
                      file + "\"" + domeCamera + R"(}}}},
      {"name": "panel", "type": "light", "attributes": {
        "xform": {"translate": [0.0, 0.0, -5.0], "rotate": [0.0, 180.0, 0.0]},
        "material": {"lightShader": "rectLight", "params": {"intensity": 7.0)" + rectCamera +
                      "}}}}")[0];  // red of a pixel
  };
  EXPECT_EQ(seen("0.0", "", ""), 0);    // green straight ahead
  EXPECT_EQ(seen("90.0", "", ""), 0);   // blue
  EXPECT_EQ(seen("-90.0", "", ""), 1);  // red
  EXPECT_EQ(seen("-90.0", R"(, "camera": 0)", ""), 0);
  EXPECT_EQ(seen("-90.0", "", R"(, "camera": 1)"), 7);  // in front of the dome
}

// Diffuse, specular and emission add up to beauty, and so do the light
// groups when every light is in one; albedo and depth are the first hit's.
TEST(Shading, OutputsAddUpToBeauty) {
  Renderer renderer(quiet());
  renderer.load(sceneOf(
      R"({"resolution": [24, 24], "samples": 4, "maxDepth": 3,
          "outputs": ["diffuse", "specular", "emission", "albedo", "depth", "lightGroups"]})",
      floorOf(R"({"baseColor": [0.8, 0.5, 0.2], "specular": 1.0, "roughness": 0.3})") + "," +
          cameraAt(0) + "," +
          R"({"name": "sky", "type": "light", "attributes": {"lightGroup": "sky", "material": {
        "lightShader": "domeLight", "params": {"intensity": 0.5}}}},
      {"name": "key", "type": "light", "attributes": {"xform": {"translate": [0.0, 2.0, 0.0],
        "rotate": [-90.0, 0.0, 0.0]}, "lightGroup": "key", "material": {"lightShader": "rectLight",
        "params": {"intensity": 5.0}}}},
      {"name": "bulb", "type": "light", "attributes": {"xform": {"translate": [1.0, 1.0, 0.0]},
        "lightGroup": "key", "material": {"lightShader": "pointLight"}}})"));
  ASSERT_TRUE(renderer.renderBatch());
  const OutputLayout& layout = renderer.scene().layout;
  ASSERT_EQ(layout.channels, 3 + 3 * 4 + 1 + 3 * 2);
  const std::vector<float> all = renderer.outputs();
  double diffuse = 0, specular = 0;
  for (size_t p = 0; p < all.size(); p += size_t(layout.channels)) {
    const float* px = &all[p];
    for (int c = 0; c < 3; ++c) {
      const float beauty = px[c], tolerance = 1e-5f + 1e-5f * beauty;
      EXPECT_NEAR(px[layout.diffuse + c] + px[layout.specular + c] + px[layout.emission + c],
                  beauty, tolerance);
      EXPECT_NEAR(px[layout.groups + c] + px[layout.groups + 3 + c], beauty, tolerance);
      EXPECT_FLOAT_EQ(px[layout.albedo + c], c == 0 ? 0.8f : c == 1 ? 0.5f : 0.2f);
    }
    diffuse += px[layout.diffuse];
    specular += px[layout.specular];
    // Every camera ray meets the floor 10 units away.
    EXPECT_NEAR(px[layout.depth], 10.0f, 1e-3f);
  }
  EXPECT_GT(diffuse, 0);
  EXPECT_GT(specular, 0);
}

// A lookup at a texel's centre returns that texel (t = 0 the top row); a
// textured floor takes its colour from its texture coordinates, v up.
TEST(Shading, TexturesAtTexelCentresAndOnMeshes) {
  const std::string file = testing::TempDir() + "/texels.exr";
  std::vector<float> texels(4 * 2 * 3);
  for (size_t i = 0; i < texels.size(); ++i) texels[i] = float(i) / 8;
  auto out = OIIO::ImageOutput::create(file);
  ASSERT_TRUE(out && out->open(file, OIIO::ImageSpec(4, 2, 3, OIIO::TypeDesc::FLOAT)) &&
              out->write_image(OIIO::TypeDesc::FLOAT, texels.data()) && out->close());
  std::string error;
  const std::shared_ptr<const Texture> texture = Textures::shared().open(file, true, error);
  ASSERT_TRUE(texture && texture->copied()) << error;
  float value[3];
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 4; ++x) {
      ASSERT_TRUE(texture->lookup((x + 0.5f) / 4, (y + 0.5f) / 2, 0, 3, value));
      for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(value[c], texels[3 * (y * 4 + x) + c]);
    }
  // A footprint as wide as the texture reads its mean (the coarsest level).
  ASSERT_TRUE(texture->lookup(0.3f, 0.6f, 1, 3, value));
  EXPECT_FLOAT_EQ(value[0], 1.3125f);  // (0 + 3 + ... + 21) / 8 / 8
  // A 4 x 2 floor with u from 0 to 1 along x and v from 0 to 1 along -z,
  // seen from above with +x right and -z up, one pixel a unit.
  Renderer renderer(quiet(1));
  renderer.load(sceneOf(R"({"resolution": [4, 2], "samples": 1, "outputs": ["albedo"]})",
                        R"({"name": "floor", "type": "polymesh", "attributes": {"geometry": {
      "point": {"P": [-2.0,0.0,1.0, 2.0,0.0,1.0, 2.0,0.0,-1.0, -2.0,0.0,-1.0],
                "st": [0.0,0.0, 1.0,0.0, 1.0,1.0, 0.0,1.0]},
      "poly": {"faceCounts": [4], "vertexList": [0,1,2,3]}},
      "material": {"params": {"baseColorTexture": ")" + file + R"("}}}},
      {"name": "cam", "type": "camera", "attributes": {"geometry": {"projection": "orthographic",
        "orthographicWidth": 2.0}, "xform": {"translate": [0.0, 5.0, 0.0], "rotate": [-90.0, 0.0, 0.0]}}},
      {"name": "sun", "type": "light", "attributes": {"material": {"lightShader": "distantLight"}}})"));
  ASSERT_TRUE(renderer.renderBatch());
  const std::vector<float> all = renderer.outputs();
  const int albedo = renderer.scene().layout.albedo;
  // The first pass samples a third down each pixel: 5/6 of the pixel's
  // own texel and 1/6 of the one above it (the texture wraps).
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 4; ++x)
      EXPECT_NEAR(all[size_t(y * 4 + x) * 6 + albedo],
                  texels[3 * (y * 4 + x)] * 5 / 6 + texels[3 * ((1 - y) * 4 + x)] / 6, 1e-5f)
          << x << " " << y;
}

// A normal map turns the shading normal along the surface's own u and v: a
// map tilted 45 degrees toward +u (+v) faces a light coming 45 degrees from
// that side head-on, so a white floor there shows 1/pi; an unturned normal
// would show cos 45 of that, one turned the wrong way nothing.
TEST(Shading, NormalMapsTurnAlongTextureCoordinates) {
  const float c = std::cos(float(M_PI) / 4);
  const struct { const char* side; float tilt[3]; const char* rotate; } cases[] = {
      {"+u", {c, 0, c}, "[-90.0, 0.0, -45.0]"},     // u runs along +x
      {"+v", {0, c, c}, "[-135.0, 0.0, 0.0]"}};     // v runs along -z
  for (const auto& tilted : cases) {
    const std::string file = testing::TempDir() + "/normals" + (tilted.side + 1) + ".exr";
    std::vector<float> texels(2 * 2 * 3);
    for (size_t i = 0; i < texels.size(); ++i) texels[i] = 0.5f + 0.5f * tilted.tilt[i % 3];
    auto out = OIIO::ImageOutput::create(file);
    ASSERT_TRUE(out && out->open(file, OIIO::ImageSpec(2, 2, 3, OIIO::TypeDesc::FLOAT)) &&
                out->write_image(OIIO::TypeDesc::FLOAT, texels.data()) && out->close());
    const std::vector<float> image = render(
        R"({"resolution": [4, 2], "samples": 1, "maxDepth": 1})",
        R"({"name": "floor", "type": "polymesh", "attributes": {"geometry": {
          "point": {"P": [-2.0,0.0,1.0, 2.0,0.0,1.0, 2.0,0.0,-1.0, -2.0,0.0,-1.0],
                    "st": [0.0,0.0, 1.0,0.0, 1.0,1.0, 0.0,1.0]},
          "poly": {"faceCounts": [4], "vertexList": [0,1,2,3]}},
          "material": {"params": {"baseColor": 1.0, "normalTexture": ")" + file + R"("}}}},
        {"name": "cam", "type": "camera", "attributes": {"geometry": {"projection": "orthographic",
          "orthographicWidth": 2.0}, "xform": {"translate": [0.0, 5.0, 0.0], "rotate": [-90.0, 0.0, 0.0]}}},
        {"name": "sun", "type": "light", "attributes": {"material": {"lightShader": "distantLight"},
          "xform": {"rotate": )" + std::string(tilted.rotate) + "}}}");
    EXPECT_NEAR(mean(image), 1 / M_PI, 0.01) << tilted.side;
  }
}
