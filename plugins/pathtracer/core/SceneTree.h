// The renderer's own copy of the scene: locations by full path, each with a
// type, an attribute group and ordered children. Live updates edit it; the
// scene compiler turns it into what a pass traces.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "XoAttribute/Attribute.h"
#include "XoScenegraph/XoScenegraphIterator.h"

namespace pathtracer {

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;

struct Location {
  std::string type;
  GroupAttribute attributes;
  std::vector<std::string> children;  // full paths, in order
};

// What an update touched, so that a rebuild can skip untouched geometry.
struct UpdateEffect {
  bool geometryChanged = false;
  bool anythingChanged = false;
};

class SceneTree {
 public:
  static SceneTree fromIterator(const Arbolite3::internal::XoScenegraphIterator& root);

  const std::string& rootPath() const { return root; }
  const Location* find(const std::string& path) const;
  size_t size() const { return locations.size(); }

  // Applies one update group: each child is named by a location's full path
  // and holds "attributes" (merged into the location's, a null removes a
  // name), "type" (creates the location, or replaces its type) or
  // "remove" (drops it with everything below). Bad entries are logged and
  // skipped; the rest of the update still applies.
  UpdateEffect apply(const GroupAttribute& update);

 private:
  void add(const Arbolite3::internal::XoScenegraphIterator& it, const std::string& path);
  void remove(const std::string& path);
  // Whether a location below `path` holds (or may hold) triangles.
  bool hasMeshBelow(const std::string& path) const;

  std::string root;
  std::map<std::string, Location> locations;
};

// Deep merge: children of `over` replace those of `base`, groups merge
// recursively, a Null child deletes the name.
GroupAttribute mergeGroups(const GroupAttribute& base, const GroupAttribute& over);

}  // namespace pathtracer
