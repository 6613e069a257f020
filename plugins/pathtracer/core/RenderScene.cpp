#include "RenderScene.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>

#include <unistd.h>

#include "AttributeValues.h"
#include "Log.h"
#include "Textures.h"
#include "XoScenegraph/AttributeJson.h"

namespace pathtracer {

using namespace Arbolite3::internal::XoAttribute;

namespace {

const char* const kMaterialParams[] = {
    "baseColor", "roughness", "metallic", "specular", "ior", "transmission", "emissionColor",
    "emissionIntensity", "baseColorTexture", "roughnessTexture", "metallicTexture",
    "normalTexture"};

std::set<std::string> withPrefix(const std::string& prefix, std::set<std::string> names) {
  for (const char* param : kMaterialParams) names.insert(prefix + param);
  return names;
}

// Every attribute the renderer reads, by location type, as dotted paths.
const std::set<std::string>& knownAttributes(const std::string& type) {
  static const std::map<std::string, std::set<std::string>> known = {
      {"root", {"renderSettings.camera", "renderSettings.resolution", "renderSettings.samples",
                "renderSettings.maxDepth", "renderSettings.frame", "renderSettings.output",
                "renderSettings.outputs"}},
      {"group", {}},
      {"camera", {"geometry.projection", "geometry.fov", "geometry.near", "geometry.far",
                  "geometry.orthographicWidth"}},
      {"light", {"material.lightShader", "material.params.color", "material.params.intensity",
                 "material.params.exposure", "material.params.width", "material.params.height",
                 "material.params.file", "material.params.camera", "material.params.coneAngle",
                 "material.params.coneSoftness", "lightGroup", "mute"}},
      {"polymesh", withPrefix("material.params.",
                              {"geometry.point.P", "geometry.point.N", "geometry.poly.vertexList",
                               "geometry.poly.startIndex", "geometry.poly.faceCounts",
                               "geometry.file", "geometry.point.st"})},
      {"material", withPrefix("params.", {"surfaceShader"})},
  };
  static const std::set<std::string> none;
  auto found = known.find(type);
  return found == known.end() ? none : found->second;
}

bool knownEverywhere(const std::string& path) {
  return path == "xform.translate" || path == "xform.rotate" || path == "xform.scale" ||
         path == "material.assign";
}

void reportUnknownAttributes(const GroupAttribute& group, const std::string& prefix,
                             const std::string& type, const std::string& where,
                             OnceReporter& reporter) {
  for (size_t i = 0; i < group.getNumberOfChildren(); ++i) {
    const std::string path = prefix + group.getChildName(i);
    const GroupAttribute child(group.getChildByIndex(i));
    if (child.isValid()) {
      reportUnknownAttributes(child, path + ".", type, where, reporter);
    } else if (!knownEverywhere(path) && !knownAttributes(type).count(path)) {
      reporter.warnOnce("attribute " + type + " " + path,
                        "Unknown attribute \"" + path + "\" on " + type + " locations (first at " +
                            where + "); ignored");
    }
  }
}

Vec3 vec3(const Attribute& attr, const Vec3& fallback) {
  const std::vector<double> v = numbers(attr);
  if (v.size() >= 3) return Vec3(float(v[0]), float(v[1]), float(v[2]));
  if (v.size() == 1) return Vec3(float(v[0]), float(v[0]), float(v[0]));
  return fallback;
}

Transform localTransform(const GroupAttribute& attrs) {
  Transform t;
  const std::vector<double> tr = numbers(attrs.getChildByName("xform.translate"));
  if (tr.size() >= 3) t = Transform::translate(tr[0], tr[1], tr[2]);
  const std::vector<double> r = numbers(attrs.getChildByName("xform.rotate"));
  if (r.size() >= 3)
    t = t * Transform::rotate(2, r[2]) * Transform::rotate(1, r[1]) * Transform::rotate(0, r[0]);
  const std::vector<double> s = numbers(attrs.getChildByName("xform.scale"));
  if (s.size() >= 3) t = t * Transform::scale(s[0], s[1], s[2]);
  else if (s.size() == 1) t = t * Transform::scale(s[0], s[0], s[0]);
  return t;
}

// Textures opened are added to `kept`, which holds them for the scene.
Material materialFrom(const GroupAttribute& params, Material m, OnceReporter& reporter,
                      std::vector<std::shared_ptr<const Texture>>& kept) {
  if (!params.isValid()) return m;
  m.albedo = vec3(params.getChildByName("baseColor"), m.albedo);
  m.roughness = float(number(params.getChildByName("roughness"), m.roughness));
  m.metallic = float(number(params.getChildByName("metallic"), m.metallic));
  m.specular = float(number(params.getChildByName("specular"), m.specular));
  m.ior = std::max(1.0f, float(number(params.getChildByName("ior"), m.ior)));
  m.transmission = float(number(params.getChildByName("transmission"), m.transmission));
  const Vec3 emission = vec3(params.getChildByName("emissionColor"), Vec3(0, 0, 0));
  m.emission = emission * float(number(params.getChildByName("emissionIntensity"), 1.0));
  const struct { const char* name; const Texture** texture; } textures[] = {
      {"baseColorTexture", &m.baseColorTexture}, {"roughnessTexture", &m.roughnessTexture},
      {"metallicTexture", &m.metallicTexture}, {"normalTexture", &m.normalTexture}};
  for (const auto& t : textures) {
    const std::string file = text(params.getChildByName(t.name));
    if (file.empty()) continue;
    std::string error;
    // An 8-bit colour file is sRGB-encoded by convention; other values are as stored.
    std::shared_ptr<const Texture> texture =
        Textures::shared().open(file, t.texture == &m.baseColorTexture, error);
    if (texture) {
      *t.texture = texture.get();
      kept.push_back(std::move(texture));
    } else {
      reporter.errorOnce("texture " + file, "Cannot read texture \"" + file + "\": " + error +
                                                "; " + t.name + " ignored");
      *t.texture = nullptr;
    }
  }
  return m;
}

struct MeshInstance {
  std::string path;
  Transform toWorld;
  Material material;
};

struct Walk {
  const SceneTree& tree;
  OnceReporter& reporter;
  RenderScene& out;
  const RenderScene* previous;
  std::vector<MeshInstance> meshes;
  std::string firstCamera;
  std::map<std::string, Transform> cameraTransforms;

  void visit(const std::string& path, const Transform& parent, const std::string& materialPath) {
    const Location* location = tree.find(path);
    if (!location) return;
    const GroupAttribute& attrs = location->attributes;
    const std::string& type = location->type;
    if (knownAttributes(type).empty() && type != "group" && type != "root")
      reporter.warnOnce("type " + type, "Unknown location type \"" + type + "\" (first at " +
                                            path + "); its children are still rendered");
    else
      reportUnknownAttributes(attrs, "", type, path, reporter);
    const Transform world = parent * localTransform(attrs);
    const std::string assigned = text(attrs.getChildByName("material.assign"), materialPath);

    if (type == "camera") {
      cameraTransforms[path] = world;
      if (firstCamera.empty()) firstCamera = path;
    } else if (type == "light") {
      addLight(path, attrs, world);
    } else if (type == "polymesh") {
      meshes.push_back({path, world, resolveMaterial(assigned, attrs)});
    }
    for (const std::string& child : location->children) visit(child, world, assigned);
  }

  Material resolveMaterial(const std::string& assigned, const GroupAttribute& attrs) {
    Material m;
    if (!assigned.empty()) {
      const Location* material = tree.find(assigned);
      if (material && material->type == "material")
        m = materialFrom(GroupAttribute(material->attributes.getChildByName("params")), m,
                         reporter, out.textures);
      else
        reporter.warnOnce("material " + assigned,
                          "Material \"" + assigned + "\" is not a material location; using grey");
    }
    return materialFrom(GroupAttribute(attrs.getChildByName("material.params")), m, reporter,
                        out.textures);
  }

  void addLight(const std::string& path, const GroupAttribute& attrs, const Transform& world) {
    if (number(attrs.getChildByName("mute"), 0) != 0) return;
    const std::string shader = text(attrs.getChildByName("material.lightShader"), "pointLight");
    const GroupAttribute params(attrs.getChildByName("material.params"));
    const Vec3 color = vec3(params.getChildByName("color"), Vec3(1, 1, 1));
    const float scale = float(number(params.getChildByName("intensity"), 1.0) *
                              std::exp2(number(params.getChildByName("exposure"), 0.0)));
    const Vec3 emitted = color * scale;
    const Attribute camera = params.getChildByName("camera");
    const int group = groupOf(path, text(attrs.getChildByName("lightGroup")));
    if (shader == "pointLight") {
      out.pointLights.push_back({world.point(Vec3(0, 0, 0)), emitted, group});
    } else if (shader == "spotLight") {
      PointLight spot{world.point(Vec3(0, 0, 0)), emitted, group,
                      normalize(world.vector(Vec3(0, 0, -1)))};
      const double half = std::clamp(number(params.getChildByName("coneAngle"), 60.0), 0.0, 180.0) / 2;
      const double soft = std::clamp(number(params.getChildByName("coneSoftness"), 0.0), 0.0, 1.0);
      spot.cosOuter = float(std::cos(half * M_PI / 180));
      spot.cosInner = float(std::cos(half * (1 - soft) * M_PI / 180));
      out.pointLights.push_back(spot);
    } else if (shader == "distantLight") {
      out.distantLights.push_back({normalize(-world.vector(Vec3(0, 0, -1))), emitted, group});
    } else if (shader == "rectLight") {
      const float w = float(number(params.getChildByName("width"), 1.0));
      const float h = float(number(params.getChildByName("height"), 1.0));
      RectLight rect;
      rect.corner = world.point(Vec3(-w / 2, -h / 2, 0));
      rect.edgeU = world.vector(Vec3(w, 0, 0));
      rect.edgeV = world.vector(Vec3(0, h, 0));
      rect.normal = world.normal(Vec3(0, 0, -1));
      rect.area = length(cross(rect.edgeU, rect.edgeV));
      rect.radiance = emitted;
      rect.cameraVisible = number(camera, 0) != 0;
      rect.group = group;
      if (rect.area > 0) out.rectLights.push_back(rect);
    } else if (shader == "domeLight") {
      addDome(path, params, world, emitted, number(camera, 1) != 0);
      if (out.domeGroup < 0) out.domeGroup = group;
    } else {
      reporter.warnOnce("lightShader " + shader, "Unknown light shader \"" + shader +
                                                     "\" (first at " + path + "); light ignored");
    }
  }

  int groupOf(const std::string& path, const std::string& name) {
    if (name.empty()) return -1;
    std::vector<std::string>& groups = out.lightGroups;
    const auto found = std::find(groups.begin(), groups.end(), name);
    if (found != groups.end()) return int(found - groups.begin());
    if (groups.size() == size_t(kMaxLightGroups)) {
      reporter.warnOnce("groups " + name, "Light " + path + ": more than " +
                                              std::to_string(kMaxLightGroups) +
                                              " light groups; \"" + name + "\" ignored");
      return -1;
    }
    groups.push_back(name);
    return int(groups.size()) - 1;
  }

  // Uniform domes add up; one image dome takes their colour as its scale.
  void addDome(const std::string& path, const GroupAttribute& params, const Transform& world,
               const Vec3& emitted, bool cameraVisible) {
    DomeLight& dome = out.dome;
    const std::string file = text(params.getChildByName("file"));
    const bool first = !dome.active();
    dome.cameraVisible = first ? cameraVisible : (dome.cameraVisible || cameraVisible);
    if (file.empty() || dome.hasImage()) {
      if (!file.empty())
        reporter.warnOnce("dome " + path, "Dome light " + path + ": only one dome image is "
                                          "used; its image is ignored");
      dome.color = dome.hasImage() ? dome.color : dome.color + emitted;
      return;
    }
    std::string error;
    if (!(previous && dome.reuseImage(previous->dome, file)) && !dome.loadImage(file, error)) {
      PT_ERROR("Dome light " << path << ": cannot read \"" << file << "\": " << error);
      return;
    }
    dome.color = emitted;
    dome.setTransform(world);
  }
};

// The triangles of a polymesh location, in its own space.
bool meshOfLocation(const GroupAttribute& attrs, const std::string& path, MeshCache& cache,
                    TriangleMesh& mesh, std::shared_ptr<const TriangleMesh>& fromFile) {
  const std::string file = text(attrs.getChildByName("geometry.file"));
  if (!file.empty()) {
    fromFile = cache.get(file);
    return fromFile != nullptr;
  }
  const std::vector<double> p = numbers(attrs.getChildByName("geometry.point.P"));
  const std::vector<double> n = numbers(attrs.getChildByName("geometry.point.N"));
  const std::vector<double> vertexList = numbers(attrs.getChildByName("geometry.poly.vertexList"));
  std::vector<double> starts = numbers(attrs.getChildByName("geometry.poly.startIndex"));
  const std::vector<double> counts = numbers(attrs.getChildByName("geometry.poly.faceCounts"));
  if (starts.empty()) {
    starts.push_back(0);
    if (counts.empty())
      for (size_t i = 3; i <= vertexList.size(); i += 3) starts.push_back(double(i));
    for (double c : counts) starts.push_back(starts.back() + c);
  }
  const size_t pointCount = p.size() / 3;
  for (size_t i = 0; i < pointCount; ++i)
    mesh.points.emplace_back(float(p[3 * i]), float(p[3 * i + 1]), float(p[3 * i + 2]));
  if (n.size() == p.size())
    for (size_t i = 0; i < pointCount; ++i)
      mesh.normals.emplace_back(float(n[3 * i]), float(n[3 * i + 1]), float(n[3 * i + 2]));
  const std::vector<double> st = numbers(attrs.getChildByName("geometry.point.st"));
  if (st.size() == 2 * pointCount) mesh.uvs.assign(st.begin(), st.end());
  for (size_t f = 0; f + 1 < starts.size(); ++f) {
    const size_t begin = size_t(starts[f]), end = size_t(starts[f + 1]);
    if (end > vertexList.size() || begin > end) {
      PT_ERROR("Mesh " << path << ": face " << f << " runs past the vertex list; mesh skipped");
      return false;
    }
    for (size_t k = begin + 1; k + 1 < end; ++k)  // a fan over each polygon
      for (size_t v : {begin, k, k + 1}) {
        if (vertexList[v] < 0 || vertexList[v] >= double(pointCount)) {
          PT_ERROR("Mesh " << path << ": vertex index " << vertexList[v]
                           << " outside its points; mesh skipped");
          return false;
        }
        mesh.indices.push_back(unsigned(vertexList[v]));
      }
  }
  return true;
}

std::shared_ptr<const Geometry> buildGeometry(const SceneTree& tree,
                                              const std::vector<MeshInstance>& instances,
                                              RTCDevice device, MeshCache& cache) {
  auto geometry = std::make_shared<Geometry>();
  geometry->scene = rtcNewScene(device);
  for (const MeshInstance& instance : instances) {
    TriangleMesh own;
    std::shared_ptr<const TriangleMesh> fromFile;
    if (!meshOfLocation(tree.find(instance.path)->attributes, instance.path, cache, own, fromFile))
      continue;
    if (!fromFile) fromFile = std::make_shared<const TriangleMesh>(std::move(own));
    const TriangleMesh& mesh = *fromFile;
    if (mesh.indices.empty()) continue;
    RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* vertices = static_cast<float*>(rtcSetNewGeometryBuffer(
        g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), mesh.points.size()));
    for (size_t i = 0; i < mesh.points.size(); ++i) {
      const Vec3 w = instance.toWorld.point(mesh.points[i]);
      vertices[3 * i] = w.x; vertices[3 * i + 1] = w.y; vertices[3 * i + 2] = w.z;
    }
    auto* indices = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), mesh.triangleCount()));
    std::copy(mesh.indices.begin(), mesh.indices.end(), indices);
    rtcCommitGeometry(g);
    const unsigned id = rtcAttachGeometry(geometry->scene, g);
    rtcReleaseGeometry(g);
    if (geometry->meshes.size() <= id) geometry->meshes.resize(id + 1);
    MeshShading& shading = geometry->meshes[id];
    shading.path = instance.path;
    shading.points = vertices;
    shading.triangles = indices;
    for (const Vec3& normal : mesh.normals)
      shading.normals.push_back(packUnit(instance.toWorld.normal(normal)));
    if (!mesh.uvs.empty()) shading.uvs = std::shared_ptr<const std::vector<float>>(fromFile, &mesh.uvs);
    geometry->triangles += mesh.triangleCount();
  }
  // Past a million triangles memory matters more than speed: a compact
  // hierarchy takes about 40% less per triangle and traces about 20% slower.
  if (geometry->triangles > kCompactTriangles)
    rtcSetSceneFlags(geometry->scene, RTC_SCENE_FLAG_COMPACT);
  rtcCommitScene(geometry->scene);
  return geometry;
}

// A setting's value as the scene wrote it, for error messages.
std::string describe(const Attribute& attr) {
  const StringAttribute textValue(attr);
  if (textValue.isValid()) return "\"" + textValue.getValue() + "\"";
  const std::vector<double> values = numbers(attr);
  if (values.empty() && attr.getType() != kTypeNull)
    return "of the wrong type (" + Arbolite3::internal::attributeToJsonText(attr) + ")";
  std::ostringstream out;
  if (values.size() != 1) out << "[";
  for (size_t i = 0; i < values.size(); ++i) out << (i ? ", " : "") << values[i];
  if (values.size() != 1) out << "]";
  return out.str();
}

bool wholeNumbers(const std::vector<double>& values, size_t count, double least) {
  if (values.size() != count) return false;
  for (double v : values)
    if (!(v >= least && v <= 1e9 && v == std::floor(v))) return false;
  return true;
}

// Bad settings are errors, never silently replaced: `valid` goes false.
void readSettings(const GroupAttribute& settings, RenderSettings& s) {
  auto invalid = [&](const char* name, const Attribute& attr, const char* expected) {
    PT_ERROR("Invalid renderSettings." << name << " " << describe(attr) << ": expected "
                                       << expected);
    s.valid = false;
  };
  const Attribute resolution = settings.getChildByName("resolution");
  if (resolution.isValid()) {
    const std::vector<double> v = numbers(resolution);
    if (wholeNumbers(v, 2, 1)) {
      s.width = int(v[0]);
      s.height = int(v[1]);
    } else {
      invalid("resolution", resolution, "a width and a height, whole numbers of at least 1");
    }
  }
  const struct { const char* name; int* value; double least; const char* expected; } counts[] = {
      {"samples", &s.samples, 1, "a whole number of at least 1"},
      {"maxDepth", &s.maxDepth, 1, "a whole number of at least 1"},
      {"frame", &s.frame, -1e9, "a whole number"}};
  for (const auto& c : counts) {
    const Attribute attr = settings.getChildByName(c.name);
    if (!attr.isValid()) continue;
    const std::vector<double> v = numbers(attr);
    if (wholeNumbers(v, 1, c.least)) *c.value = int(v[0]);
    else invalid(c.name, attr, c.expected);
  }
  s.frameGiven = settings.getChildByName("frame").isValid();
  const StringAttribute outputs(settings.getChildByName("outputs"));
  if (settings.getChildByName("outputs").isValid() && !outputs.isValid())
    invalid("outputs", settings.getChildByName("outputs"), "a list of output names");
  for (size_t i = 0; outputs.isValid() && i < outputs.getNumberOfValues(); ++i) {
    const std::string name = outputs.getValues()[i];
    if (name != "diffuse" && name != "specular" && name != "emission" && name != "albedo" &&
        name != "normal" && name != "depth" && name != "lightGroups") {
      PT_ERROR("Invalid renderSettings.outputs: unknown output \"" << name << "\"; expected "
               "diffuse, specular, emission, albedo, normal, depth or lightGroups");
      s.valid = false;
    }
    s.outputs.push_back(name);
  }
  s.output = text(settings.getChildByName("output"));
  if (!s.valid) return;
  // The image's sums, its average and the copy being written: refuse what
  // cannot fit rather than fail half-way through an allocation.
  const double bytes = 3.0 * 3 * sizeof(float) * double(s.width) * double(s.height);
  const double memory = double(sysconf(_SC_PHYS_PAGES)) * double(sysconf(_SC_PAGE_SIZE));
  if (memory > 0 && bytes > memory) {
    PT_ERROR("Invalid renderSettings.resolution [" << s.width << ", " << s.height << "]: its image needs "
             << bytes / (1 << 30) << " GiB, more than the machine's " << memory / (1 << 30)
             << " GiB");
    s.valid = false;
  }
}

void layOut(RenderScene& scene) {
  OutputLayout& l = scene.layout;
  l.names = {"R", "G", "B"};
  auto add = [&](const std::string& name, int& offset, int count) {
    offset = l.channels;
    l.channels += count;
    if (count == 1) l.names.push_back(name + ".Z");
    else for (const char* c : {".R", ".G", ".B"}) l.names.push_back(name + c);
  };
  const std::vector<std::string>& wanted = scene.settings.outputs;
  auto asked = [&](const char* name) {
    return std::find(wanted.begin(), wanted.end(), name) != wanted.end();
  };
  if (asked("diffuse")) add("diffuse", l.diffuse, 3);
  if (asked("specular")) add("specular", l.specular, 3);
  if (asked("emission")) add("emission", l.emission, 3);
  if (asked("albedo")) add("albedo", l.albedo, 3);
  if (asked("normal")) add("normal", l.normal, 3);
  if (asked("depth")) {
    add("depth", l.depth, 1);
    l.names.back() = "Z";
  }
  if (asked("lightGroups"))
    for (size_t g = 0; g < scene.lightGroups.size(); ++g) {
      int offset;
      add(scene.lightGroups[g], offset, 3);
      if (g == 0) l.groups = offset;
    }
}

}  // namespace

Geometry::~Geometry() {
  if (scene) rtcReleaseScene(scene);
}

RenderScene::~RenderScene() = default;

size_t RenderScene::triangleCount() const { return geometry ? geometry->triangles : 0; }

std::string outputPathForFrame(const std::string& pattern, int frame) {
  std::string out;
  for (size_t i = 0; i < pattern.size();) {
    if (pattern[i] != '#') {
      out += pattern[i++];
      continue;
    }
    size_t run = 0;
    while (i < pattern.size() && pattern[i] == '#') ++run, ++i;
    std::string digits = std::to_string(frame < 0 ? -frame : frame);
    if (digits.size() < run) digits.insert(0, run - digits.size(), '0');
    out += (frame < 0 ? "-" : "") + digits;
  }
  return out;
}

std::unique_ptr<RenderScene> compileScene(const SceneTree& tree, RTCDevice device,
                                          MeshCache& meshes, OnceReporter& reporter,
                                          const RenderScene* previous, bool reuseGeometry) {
  auto scene = std::make_unique<RenderScene>();
  const Location* root = tree.find(tree.rootPath());
  if (!root) {
    scene->geometry = buildGeometry(tree, {}, device, meshes);
    return scene;
  }

  const GroupAttribute settings(root->attributes.getChildByName("renderSettings"));
  readSettings(settings, scene->settings);
  Walk walk{tree, reporter, *scene, previous, {}, {}, {}};
  walk.visit(tree.rootPath(), Transform(), std::string());

  std::string cameraPath = text(settings.getChildByName("camera"), walk.firstCamera);
  if (!walk.cameraTransforms.count(cameraPath)) {
    reporter.warnOnce("camera " + cameraPath,
                      "No camera location \"" + cameraPath + "\"; using the first camera or, "
                      "without one, a camera at the origin looking down -Z");
    cameraPath = walk.firstCamera;
  }
  if (!cameraPath.empty()) {
    const GroupAttribute attrs = tree.find(cameraPath)->attributes;
    Camera& c = scene->camera;
    c.toWorld = walk.cameraTransforms[cameraPath];
    c.position = c.toWorld.point(Vec3(0, 0, 0));
    c.right = c.toWorld.vector(Vec3(1, 0, 0));
    c.up = c.toWorld.vector(Vec3(0, 1, 0));
    c.forward = c.toWorld.vector(Vec3(0, 0, 1));
    c.orthographic = text(attrs.getChildByName("geometry.projection")) == "orthographic";
    c.fovDegrees = float(number(attrs.getChildByName("geometry.fov"), c.fovDegrees));
    c.tanHalfFov = std::tan(c.fovDegrees * float(M_PI) / 360.0f);
    c.orthographicWidth =
        float(number(attrs.getChildByName("geometry.orthographicWidth"), c.orthographicWidth));
    c.nearClip = float(number(attrs.getChildByName("geometry.near"), c.nearClip));
    const float across =
        2.0f / float(std::min(scene->settings.width, scene->settings.height));
    if (c.orthographic) scene->footprintAt0 = c.orthographicWidth / 2 * across;
    else scene->footprintPerDistance = c.tanHalfFov * across;
    c.farClip = float(number(attrs.getChildByName("geometry.far"), c.farClip));
  }

  if (reuseGeometry && previous && previous->geometry)
    scene->geometry = previous->geometry;
  else
    scene->geometry = buildGeometry(tree, walk.meshes, device, meshes);
  // Materials are looked up by Embree geometry id.
  std::map<std::string, Material> byPath;
  for (const MeshInstance& m : walk.meshes) byPath[m.path] = m.material;
  for (const MeshShading& shading : scene->geometry->meshes)
    scene->materials.push_back(byPath.count(shading.path) ? byPath[shading.path] : Material());
  for (const Material& m : scene->materials) scene->hasEmitters |= !m.emission.isBlack();
  layOut(*scene);
  return scene;
}

}  // namespace pathtracer
