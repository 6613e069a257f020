#include "SceneTree.h"

#include <sstream>

#include "Log.h"

namespace pathtracer {

using Arbolite3::internal::XoScenegraphIterator;
using namespace Arbolite3::internal::XoAttribute;

namespace {

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return (slash == std::string::npos || slash == 0) ? std::string() : path.substr(0, slash);
}

bool typeAffectsGeometry(const std::string& type) {
  return type != "camera" && type != "light" && type != "material" && type != "root";
}

}  // namespace

GroupAttribute mergeGroups(const GroupAttribute& base, const GroupAttribute& over) {
  GroupBuilder builder;
  builder.update(base);
  for (size_t i = 0; i < over.getNumberOfChildren(); ++i) {
    const std::string name = over.getChildName(i);
    const Attribute child = over.getChildByIndex(i);
    if (child.getType() == kTypeNull) {
      builder.del(name);
      continue;
    }
    const GroupAttribute childGroup(child);
    const GroupAttribute baseGroup(base.getChildByName(name));
    if (childGroup.isValid() && baseGroup.isValid())
      builder.set(name, mergeGroups(baseGroup, childGroup));
    else
      builder.set(name, child);
  }
  return builder.build();
}

SceneTree SceneTree::fromIterator(const XoScenegraphIterator& it) {
  SceneTree tree;
  if (!it.isValid()) return tree;
  tree.root = it.getFullName();
  tree.add(it, tree.root);
  return tree;
}

void SceneTree::add(const XoScenegraphIterator& it, const std::string& path) {
  Location& location = locations[path];
  location.type = it.getType();
  location.attributes = it.getAttributes();
  for (XoScenegraphIterator child = it.getFirstChild(); child.isValid();
       child = child.getNextSibling()) {
    const std::string childPath = path + "/" + child.getName();
    locations[path].children.push_back(childPath);
    add(child, childPath);
  }
}

bool SceneTree::hasMeshBelow(const std::string& path) const {
  const Location* location = find(path);
  if (!location) return false;
  for (const std::string& child : location->children) {
    const Location* below = find(child);
    if (below && (typeAffectsGeometry(below->type) || hasMeshBelow(child))) return true;
  }
  return false;
}

const Location* SceneTree::find(const std::string& path) const {
  auto found = locations.find(path);
  return found == locations.end() ? nullptr : &found->second;
}

void SceneTree::remove(const std::string& path) {
  auto found = locations.find(path);
  if (found == locations.end()) return;
  for (const std::string& child : std::vector<std::string>(found->second.children)) remove(child);
  locations.erase(path);
  auto parent = locations.find(parentOf(path));
  if (parent != locations.end()) {
    auto& siblings = parent->second.children;
    for (auto i = siblings.begin(); i != siblings.end(); ++i)
      if (*i == path) {
        siblings.erase(i);
        break;
      }
  }
}

UpdateEffect SceneTree::apply(const GroupAttribute& update) {
  UpdateEffect effect;
  for (size_t i = 0; i < update.getNumberOfChildren(); ++i) {
    const std::string path = update.getChildName(i);
    const GroupAttribute entry(update.getChildByIndex(i));
    if (path.empty() || path[0] != '/' || !entry.isValid()) {
      PT_ERROR("Update entry \"" << path
               << "\" ignored: expected a location's full path holding a group");
      continue;
    }
    auto existing = locations.find(path);
    if (IntAttribute(entry.getChildByName("remove")).getValue(0) != 0) {
      if (existing == locations.end()) {
        PT_ERROR("Update cannot remove \"" << path << "\": no such location");
        continue;
      }
      if (path == root) {
        PT_ERROR("Update cannot remove the root location \"" << path << "\"");
        continue;
      }
      remove(path);
      effect.geometryChanged = effect.anythingChanged = true;
      continue;
    }
    const StringAttribute type(entry.getChildByName("type"));
    const GroupAttribute attributes(entry.getChildByName("attributes"));
    if (existing == locations.end()) {
      const std::string parent = parentOf(path);
      if (!type.isValid() || locations.find(parent) == locations.end()) {
        PT_ERROR("Update cannot add \"" << path
                 << "\": a new location needs a \"type\" and an existing parent");
        continue;
      }
      Location& created = locations[path];
      created.type = type.getValue();
      created.attributes = attributes.isValid() ? attributes : GroupBuilder().build();
      locations[parent].children.push_back(path);
      effect.geometryChanged |= typeAffectsGeometry(created.type);
      effect.anythingChanged = true;
      continue;
    }
    Location& location = existing->second;
    if (type.isValid()) {
      effect.geometryChanged |= typeAffectsGeometry(location.type);
      location.type = type.getValue();
    }
    if (attributes.isValid()) location.attributes = mergeGroups(location.attributes, attributes);
    // Meshes are baked into world space: a transform anywhere above one
    // moves it, whatever the type of the location that holds the transform.
    effect.geometryChanged |= typeAffectsGeometry(location.type) ||
                              (attributes.getChildByName("xform").isValid() && hasMeshBelow(path));
    effect.anythingChanged = true;
  }
  return effect;
}

}  // namespace pathtracer
