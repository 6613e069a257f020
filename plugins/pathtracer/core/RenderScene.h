// What one pass traces: the camera, the lights, the materials and the Embree
// scene, compiled from a SceneTree. Immutable while passes run.
#pragma once

#include <embree3/rtcore.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Bsdf.h"
#include "DomeLight.h"
#include "Math.h"
#include "MeshFile.h"
#include "SceneTree.h"

namespace pathtracer {

class OnceReporter;

struct Camera {
  Transform toWorld;  // looks down -Z, +Y up
  bool orthographic = false;
  float fovDegrees = 45.0f;  // across the shorter image side
  float tanHalfFov = 0.41421356f;
  // toWorld's origin and axes (local X, Y, Z), for fast ray set-up.
  Vec3 position, right{1, 0, 0}, up{0, 1, 0}, forward{0, 0, 1};
  float orthographicWidth = 2.0f;  // likewise
  float nearClip = 0.0f;
  float farClip = 1e30f;
};

// A point light is a spot light with a cone of 180 degrees.
// Light groups have their own beauty output; -1 is no group.
constexpr int kMaxLightGroups = 16;

struct PointLight {
  Vec3 position, intensity;
  int group = -1;
  Vec3 axis{0, 0, -1};            // where a spot light points
  float cosOuter = -2, cosInner = -1;  // the cone's edge and where it starts to fade
};
struct DistantLight { Vec3 towardLight; Vec3 irradiance; int group = -1; };
struct RectLight {
  Vec3 corner, edgeU, edgeV, normal;
  Vec3 radiance;
  float area = 0;
  bool cameraVisible = false;
  int group = -1;
};

// Where each output is in a pixel of the image's sums, in floats; -1 when
// not asked for. Beauty is always first.
struct OutputLayout {
  int channels = 3;
  int diffuse = -1, specular = -1, emission = -1, albedo = -1, normal = -1, depth = -1;
  int groups = -1;  // the first light group's RGB, the others after it
  std::vector<std::string> names;  // of every channel, for the image file
  bool any() const { return channels > 3; }
};

// How lights are sampled: both ways, weighted (the default), or one way
// only, for measurements.
enum class LightSampling { kBoth, kLightsOnly, kBsdfOnly };

// Per Embree geometry: what shading reads besides the hit itself.
struct MeshShading {
  std::string path;  // the polymesh location
  // Embree's own buffers of the geometry: world-space points, 3 floats
  // each, and 3 point indices a triangle.
  const float* points = nullptr;
  const unsigned* triangles = nullptr;
  // World-space normals, one per point (packUnit), for smooth shading;
  // empty for flat.
  std::vector<uint32_t> normals;
  // Texture coordinates, two per point, shared with the mesh they came
  // from; null without.
  std::shared_ptr<const std::vector<float>> uvs;
};

struct RenderSettings {
  int width = 640, height = 480;
  int samples = 16;
  int maxDepth = 5;
  int frame = 1;
  bool frameGiven = false;  // renderSettings.frame was set
  bool valid = true;        // false after an invalid setting was reported
  std::string output;  // '#' runs become the zero-padded frame number
  std::vector<std::string> outputs;  // besides beauty
};

class RenderScene {
 public:
  RenderScene() = default;
  ~RenderScene();
  RenderScene(const RenderScene&) = delete;
  RenderScene& operator=(const RenderScene&) = delete;

  RenderSettings settings;
  Camera camera;
  std::vector<PointLight> pointLights;
  std::vector<DistantLight> distantLights;
  std::vector<RectLight> rectLights;
  DomeLight dome;
  LightSampling lightSampling = LightSampling::kBoth;
  std::vector<std::string> lightGroups;  // by group index
  int domeGroup = -1;
  OutputLayout layout;
  // The width a camera pixel covers at distance d: a + b d.
  float footprintAt0 = 0, footprintPerDistance = 0;
  std::vector<Material> materials;
  std::vector<std::shared_ptr<const Texture>> textures;  // what the materials read
  bool hasEmitters = false;  // some material emits
  // Shared with the scene it was rebuilt from when geometry did not change.
  std::shared_ptr<const struct Geometry> geometry;

  size_t triangleCount() const;
};

// Scenes of more triangles are built for memory rather than speed.
constexpr size_t kCompactTriangles = 1000000;

struct Geometry {
  ~Geometry();
  RTCScene scene = nullptr;
  std::vector<MeshShading> meshes;  // by Embree geometry id
  size_t triangles = 0;
};

// Compiles a scene tree. `previous` lends its geometry when `reuseGeometry`
// is true. Names the vocabulary does not know are reported once each.
std::unique_ptr<RenderScene> compileScene(const SceneTree& tree, RTCDevice device,
                                          MeshCache& meshes, OnceReporter& reporter,
                                          const RenderScene* previous, bool reuseGeometry);

// The output path with the frame number put in place of the '#' runs.
std::string outputPathForFrame(const std::string& pattern, int frame);

}  // namespace pathtracer
