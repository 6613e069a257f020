// Triangle meshes read from files (OBJ, PLY, glTF and whatever else the
// importer knows), cached by path so a rebuild does not read them again.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Math.h"

namespace pathtracer {

struct TriangleMesh {
  std::vector<Vec3> points;
  std::vector<Vec3> normals;  // one per point, or empty
  std::vector<float> uvs;     // texture coordinates, two per point, or empty
  std::vector<unsigned> indices;  // 3 per triangle
  size_t triangleCount() const { return indices.size() / 3; }
};

// All meshes of the file, node transforms applied, as one mesh. Throws
// std::runtime_error with the importer's reason when the file cannot be read.
TriangleMesh loadMeshFile(const std::string& path);

class MeshCache {
 public:
  // nullptr (after logging the reason once) when the file cannot be read.
  std::shared_ptr<const TriangleMesh> get(const std::string& path);

 private:
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<const TriangleMesh>> loaded;
};

}  // namespace pathtracer
