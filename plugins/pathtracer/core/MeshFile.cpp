#include "MeshFile.h"

#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <assimp/Importer.hpp>
#include <sstream>
#include <stdexcept>

#include "Log.h"

namespace pathtracer {

namespace {

void appendNode(const aiScene* scene, const aiNode* node, const aiMatrix4x4& parent,
                TriangleMesh& out) {
  const aiMatrix4x4 world = parent * node->mTransformation;
  aiMatrix3x3 normalMatrix(world);
  normalMatrix.Inverse().Transpose();
  for (unsigned m = 0; m < node->mNumMeshes; ++m) {
    const aiMesh* mesh = scene->mMeshes[node->mMeshes[m]];
    if (!(mesh->mPrimitiveTypes & aiPrimitiveType_TRIANGLE)) continue;
    const unsigned base = static_cast<unsigned>(out.points.size());
    for (unsigned v = 0; v < mesh->mNumVertices; ++v) {
      const aiVector3D p = world * mesh->mVertices[v];
      out.points.emplace_back(p.x, p.y, p.z);
      if (mesh->mTextureCoords[0]) {
        out.uvs.push_back(mesh->mTextureCoords[0][v].x);
        out.uvs.push_back(mesh->mTextureCoords[0][v].y);
      }
      if (mesh->mNormals) {
        aiVector3D n = normalMatrix * mesh->mNormals[v];
        n.Normalize();
        out.normals.emplace_back(n.x, n.y, n.z);
      }
    }
    for (unsigned f = 0; f < mesh->mNumFaces; ++f) {
      const aiFace& face = mesh->mFaces[f];
      if (face.mNumIndices != 3) continue;  // points and lines left by the importer
      for (int k = 0; k < 3; ++k) out.indices.push_back(base + face.mIndices[k]);
    }
  }
  for (unsigned c = 0; c < node->mNumChildren; ++c)
    appendNode(scene, node->mChildren[c], world, out);
}

}  // namespace

TriangleMesh loadMeshFile(const std::string& path) {
  Assimp::Importer importer;
  const aiScene* scene = importer.ReadFile(
      path, aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_SortByPType);
  if (!scene || !scene->mRootNode) throw std::runtime_error(importer.GetErrorString());
  TriangleMesh mesh;
  appendNode(scene, scene->mRootNode, aiMatrix4x4(), mesh);
  // Normals only count when every vertex has one.
  if (mesh.normals.size() != mesh.points.size()) mesh.normals.clear();
  if (mesh.uvs.size() != 2 * mesh.points.size()) mesh.uvs.clear();
  return mesh;
}

std::shared_ptr<const TriangleMesh> MeshCache::get(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex);
  auto found = loaded.find(path);
  if (found != loaded.end()) return found->second;
  std::shared_ptr<const TriangleMesh> mesh;
  try {
    mesh = std::make_shared<TriangleMesh>(loadMeshFile(path));
    PT_INFO("Loaded mesh file \"" << path << "\": " << mesh->triangleCount() << " triangles");
  } catch (const std::exception& e) {
    PT_ERROR("Cannot read mesh file \"" << path << "\": " << e.what());
  }
  loaded[path] = mesh;  // a failure is remembered too, and so reported once
  return mesh;
}

}  // namespace pathtracer
