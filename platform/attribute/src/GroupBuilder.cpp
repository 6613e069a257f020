// The builder keeps, per level, an ordered list of entries. An entry is a
// finished attribute or, once a dotted name has gone through it, a nested
// builder; nested builders become attributes again at build().
#include <memory>
#include <unordered_map>

#include "AttributeNode.h"
#include "XoAttribute/Attribute.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {

using detail::GroupChild;
using detail::GroupNode;
using detail::Node;
using detail::NodePtr;

struct GroupBuilder::Impl {
  struct Entry {
    std::string name;
    NodePtr node;                 // when sub is null
    std::unique_ptr<Impl> sub;  // a level still being built
  };

  std::vector<Entry> entries;
  std::unordered_map<std::string, size_t> positions;
  bool groupInherit = true;

  void clear() {
    entries.clear();
    positions.clear();
    groupInherit = true;
  }

  Entry* find(const std::string& name) {
    auto it = positions.find(name);
    return it == positions.end() ? nullptr : &entries[it->second];
  }

  // Replaces the entry in place or appends a new one.
  void put(const std::string& name, NodePtr node) {
    if (Entry* entry = find(name)) {
      entry->node = std::move(node);
      entry->sub.reset();
      return;
    }
    positions.emplace(name, entries.size());
    entries.push_back(Entry{name, std::move(node), nullptr});
  }

  void remove(const std::string& name) {
    auto it = positions.find(name);
    if (it == positions.end()) return;
    size_t index = it->second;
    positions.erase(it);
    entries.erase(entries.begin() + static_cast<ptrdiff_t>(index));
    for (size_t i = index; i < entries.size(); ++i) positions[entries[i].name] = i;
  }

  // The nested level for `name`: an existing one, one opened from a finished
  // group, or a new one (replacing a non-group) marked with groupInherit.
  // With create false, gives null instead of making anything new.
  Impl* enter(const std::string& name, bool groupInherit, bool create) {
    Entry* entry = find(name);
    if (entry != nullptr && entry->sub) return entry->sub.get();
    const GroupNode* group = entry != nullptr ? detail::asGroup(entry->node.get()) : nullptr;
    if (group == nullptr && !create) return nullptr;
    auto sub = std::make_unique<Impl>();
    if (group != nullptr) {
      sub->groupInherit = group->groupInherit;
      for (const GroupChild& child : group->children) sub->put(child.name, child.node);
    } else {
      sub->groupInherit = groupInherit;
    }
    if (entry == nullptr) {
      positions.emplace(name, entries.size());
      entries.push_back(Entry{name, NodePtr(), nullptr});
      entry = &entries.back();
    }
    entry->node = NodePtr();
    entry->sub = std::move(sub);
    return entry->sub.get();
  }

  // Turns nested levels into attributes (kept in place, so a second build
  // shares them) and makes this level's group.
  NodePtr build() {
    std::vector<GroupChild> children;
    children.reserve(entries.size());
    for (Entry& entry : entries) {
      if (entry.sub) {
        entry.node = entry.sub->build();
        entry.sub.reset();
      }
      children.push_back(GroupChild{entry.name, entry.node});
    }
    // Names are unique by construction, so create cannot fail here.
    return NodePtr::adopt(GroupNode::create(std::move(children), groupInherit));
  }
};

namespace {

// Splits a dotted name; false when it is empty or has an empty segment.
bool splitPath(const std::string& path, std::vector<std::string>* segments) {
  if (path.empty()) return false;
  size_t start = 0;
  while (true) {
    size_t dot = path.find('.', start);
    size_t end = dot == std::string::npos ? path.size() : dot;
    if (end == start) return false;
    std::string segment = path.substr(start, end - start);
    if (segment.find('\0') != std::string::npos) return false;
    segments->push_back(std::move(segment));
    if (dot == std::string::npos) return true;
    start = dot + 1;
  }
}

}  // namespace

GroupBuilder::GroupBuilder() : impl_(new Impl()) {}

GroupBuilder::~GroupBuilder() { delete impl_; }

GroupBuilder& GroupBuilder::set(const std::string& name, const Attribute& attr,
                                bool groupInherit) {
  if (!attr.isValid()) return del(name);
  std::vector<std::string> segments;
  if (!splitPath(name, &segments)) return *this;
  Impl* level = impl_;
  for (size_t i = 0; i + 1 < segments.size(); ++i) {
    level = level->enter(segments[i], groupInherit, true);
  }
  level->put(segments.back(), NodePtr::share(attr.getHandle()));
  return *this;
}

GroupBuilder& GroupBuilder::update(const GroupAttribute& group) {
  const GroupNode* node = detail::asGroup(group.getHandle());
  if (node == nullptr) return *this;
  for (const GroupChild& child : node->children) impl_->put(child.name, child.node);
  return *this;
}

GroupBuilder& GroupBuilder::del(const std::string& name) {
  std::vector<std::string> segments;
  if (!splitPath(name, &segments)) return *this;
  Impl* level = impl_;
  for (size_t i = 0; i + 1 < segments.size() && level != nullptr; ++i) {
    level = level->enter(segments[i], true, false);
  }
  if (level != nullptr) level->remove(segments.back());
  return *this;
}

GroupBuilder& GroupBuilder::setGroupInherit(bool groupInherit) {
  impl_->groupInherit = groupInherit;
  return *this;
}

GroupAttribute GroupBuilder::build(int mode) {
  NodePtr built = impl_->build();
  if (mode == BuildAndFlush) impl_->clear();
  return GroupAttribute(Attribute::adoptHandle(const_cast<XoAttributeStruct*>(built.release())));
}

}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
