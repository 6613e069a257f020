#include "AttributeNode.h"

#include <cstring>
#include <functional>
#include <string_view>

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

namespace {

// Below this many children a linear scan beats the index.
constexpr size_t kIndexThreshold = 8;

// acq_rel rather than release plus a fence: the same cost on x86, and
// visible to the thread sanitizer.
inline bool dropReference(const Node* node) {
  return node->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

inline bool sameName(const std::string& a, const char* b, size_t bLength) {
  return a.size() == bLength && (bLength == 0 || std::memcmp(a.data(), b, bLength) == 0);
}

inline size_t hashName(const char* name, size_t length) {
  return std::hash<std::string_view>()(std::string_view(name, length));
}

}  // namespace

void releaseNode(const Node* node) {
  if (node == nullptr || !dropReference(node)) return;
  if (node->type != kXoAttributeTypeGroup) {
    delete node;
    return;
  }
  std::vector<const Node*> pending{node};
  while (!pending.empty()) {
    const Node* current = pending.back();
    pending.pop_back();
    if (current->type == kXoAttributeTypeGroup) {
      // Detach the children first so that the group's destructor has nothing
      // left to release and never recurses.
      auto& children = const_cast<std::vector<GroupChild>&>(
          static_cast<const GroupNode*>(current)->children);
      for (GroupChild& child : children) {
        const Node* c = child.node.release();
        if (c != nullptr && dropReference(c)) pending.push_back(c);
      }
    }
    delete current;
  }
}

const GroupNode* GroupNode::create(std::vector<GroupChild>&& children, bool groupInherit) {
  NodePtr holder = NodePtr::adopt(new GroupNode(std::move(children), groupInherit));
  auto* group = static_cast<GroupNode*>(const_cast<Node*>(holder.get()));
  if (!group->buildIndex()) return nullptr;
  return static_cast<const GroupNode*>(holder.release());
}

bool GroupNode::buildIndex() {
  const size_t n = children.size();
  if (n <= kIndexThreshold) {
    for (size_t i = 1; i < n; ++i) {
      for (size_t j = 0; j < i; ++j) {
        if (children[i].name == children[j].name) return false;
      }
    }
    return true;
  }
  size_t capacity = 16;
  while (capacity < 2 * n) capacity *= 2;
  slots_.assign(capacity, 0);
  const size_t mask = capacity - 1;
  for (size_t i = 0; i < n; ++i) {
    const std::string& name = children[i].name;
    size_t slot = hashName(name.data(), name.size()) & mask;
    while (slots_[slot] != 0) {
      if (children[slots_[slot] - 1].name == name) return false;
      slot = (slot + 1) & mask;
    }
    slots_[slot] = static_cast<uint32_t>(i + 1);
  }
  return true;
}

ptrdiff_t GroupNode::find(const char* name, size_t length) const {
  if (slots_.empty()) {
    for (size_t i = 0; i < children.size(); ++i) {
      if (sameName(children[i].name, name, length)) return static_cast<ptrdiff_t>(i);
    }
    return -1;
  }
  const size_t mask = slots_.size() - 1;
  size_t slot = hashName(name, length) & mask;
  while (slots_[slot] != 0) {
    size_t index = slots_[slot] - 1;
    if (sameName(children[index].name, name, length)) return static_cast<ptrdiff_t>(index);
    slot = (slot + 1) & mask;
  }
  return -1;
}

const Node* lookupPath(const Node* node, const char* path, size_t length) {
  if (path == nullptr || length == 0) return nullptr;
  const char* end = path + length;
  const char* segment = path;
  while (true) {
    const GroupNode* group = asGroup(node);
    if (group == nullptr) return nullptr;
    const char* dot = static_cast<const char*>(std::memchr(segment, '.', end - segment));
    const char* segmentEnd = dot != nullptr ? dot : end;
    if (segmentEnd == segment) return nullptr;
    ptrdiff_t index = group->find(segment, segmentEnd - segment);
    if (index < 0) return nullptr;
    node = group->children[index].node.get();
    if (dot == nullptr) return node;
    segment = dot + 1;
    if (segment == end) return nullptr;
  }
}

}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
