#include "AttributeNode.h"

#include <algorithm>
#include <cstring>

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

namespace {

// Below this many children a linear scan beats the index.
constexpr size_t kIndexThreshold = 8;

inline bool dropReference(const Node* node) {
  if (node->refCount.fetch_sub(1, std::memory_order_release) != 1) return false;
  std::atomic_thread_fence(std::memory_order_acquire);
  return true;
}

inline int compareNames(const std::string& a, const char* b, size_t bLength) {
  size_t n = std::min(a.size(), bLength);
  int c = n == 0 ? 0 : std::memcmp(a.data(), b, n);
  if (c != 0) return c;
  return a.size() < bLength ? -1 : (a.size() > bLength ? 1 : 0);
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
  sorted_.resize(n);
  for (size_t i = 0; i < n; ++i) sorted_[i] = static_cast<uint32_t>(i);
  std::sort(sorted_.begin(), sorted_.end(), [this](uint32_t a, uint32_t b) {
    return children[a].name < children[b].name;
  });
  for (size_t i = 1; i < n; ++i) {
    if (children[sorted_[i]].name == children[sorted_[i - 1]].name) return false;
  }
  return true;
}

ptrdiff_t GroupNode::find(const char* name, size_t length) const {
  if (sorted_.empty()) {
    for (size_t i = 0; i < children.size(); ++i) {
      if (compareNames(children[i].name, name, length) == 0) return static_cast<ptrdiff_t>(i);
    }
    return -1;
  }
  size_t lo = 0, hi = sorted_.size();
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    int c = compareNames(children[sorted_[mid]].name, name, length);
    if (c == 0) return sorted_[mid];
    if (c < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
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
