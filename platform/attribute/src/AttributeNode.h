// The shared, immutable node behind every attribute handle. The C handle
// XoAttributeStruct* points straight at a node; C++ handles wrap the same
// pointer. Nodes are never changed after construction, so the only state that
// threads share and write is the reference count.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "XoAttribute/XoAttributeC.h"

struct XoAttributeStruct {
  explicit XoAttributeStruct(int typeCode) : type(typeCode) {}
  virtual ~XoAttributeStruct() = default;
  XoAttributeStruct(const XoAttributeStruct&) = delete;
  XoAttributeStruct& operator=(const XoAttributeStruct&) = delete;

  mutable std::atomic<uint32_t> refCount{1};
  const int type;
};

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

using Node = XoAttributeStruct;

inline void retainNode(const Node* node) {
  if (node != nullptr) node->refCount.fetch_add(1, std::memory_order_relaxed);
}
// Frees the node when the count reaches zero; groups are torn down without
// recursion, so arbitrarily deep trees cannot exhaust the stack.
void releaseNode(const Node* node);

// Owns one reference.
class NodePtr {
 public:
  NodePtr() = default;
  static NodePtr adopt(const Node* node) { return NodePtr(node); }
  static NodePtr share(const Node* node) {
    retainNode(node);
    return NodePtr(node);
  }
  NodePtr(const NodePtr& other) : node_(other.node_) { retainNode(node_); }
  NodePtr(NodePtr&& other) noexcept : node_(other.node_) { other.node_ = nullptr; }
  NodePtr& operator=(NodePtr other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~NodePtr() { releaseNode(node_); }

  const Node* get() const { return node_; }
  const Node* operator->() const { return node_; }
  explicit operator bool() const { return node_ != nullptr; }
  // Hands the reference to the caller.
  const Node* release() {
    const Node* node = node_;
    node_ = nullptr;
    return node;
  }

 private:
  explicit NodePtr(const Node* node) : node_(node) {}
  const Node* node_ = nullptr;
};

struct NullNode final : Node {
  NullNode() : Node(kXoAttributeTypeNull) {}
};

template <typename T>
struct TypeCode;
template <>
struct TypeCode<int32_t> {
  static constexpr int value = kXoAttributeTypeInt;
};
template <>
struct TypeCode<float> {
  static constexpr int value = kXoAttributeTypeFloat;
};
template <>
struct TypeCode<double> {
  static constexpr int value = kXoAttributeTypeDouble;
};
template <>
struct TypeCode<std::string> {
  static constexpr int value = kXoAttributeTypeString;
};

// Values of one type; values.size() is a multiple of tupleSize (>= 1).
template <typename T>
struct DataNode final : Node {
  DataNode(std::vector<T>&& v, size_t tuple)
      : Node(TypeCode<T>::value), tupleSize(tuple), values(std::move(v)) {}
  const size_t tupleSize;
  const std::vector<T> values;
};

using IntNode = DataNode<int32_t>;
using FloatNode = DataNode<float>;
using DoubleNode = DataNode<double>;
using StringNode = DataNode<std::string>;

// Builds a data node, or gives null for a tuple size of 0 (or one that does
// not fit the binary form's 32 bits) or a count that is not a multiple of it.
template <typename T>
const Node* makeDataNode(std::vector<T>&& values, size_t tupleSize) {
  if (tupleSize == 0 || tupleSize > UINT32_MAX || values.size() % tupleSize != 0) return nullptr;
  return new DataNode<T>(std::move(values), tupleSize);
}

struct GroupChild {
  std::string name;
  NodePtr node;
};

// Children keep their order; names are unique, non-empty and free of '.' and
// NUL. Groups larger than a few children carry a hash index for lookup.
struct GroupNode final : Node {
  const std::vector<GroupChild> children;
  const bool groupInherit;

  // Null when two children share a name.
  static const GroupNode* create(std::vector<GroupChild>&& children, bool groupInherit);

  // Index of the child with that name, or -1.
  ptrdiff_t find(const char* name, size_t length) const;

 private:
  GroupNode(std::vector<GroupChild>&& c, bool inherit)
      : Node(kXoAttributeTypeGroup), children(std::move(c)), groupInherit(inherit) {}
  bool buildIndex();

  // Open-addressing table of child position + 1 (0 = free slot), a power of
  // two at least twice the child count; empty for small groups.
  std::vector<uint32_t> slots_;
};

// A name that may stand as one child name.
inline bool isValidChildName(const char* name, size_t length) {
  if (length == 0) return false;
  for (size_t i = 0; i < length; ++i) {
    if (name[i] == '.' || name[i] == '\0') return false;
  }
  return true;
}

// Looks up a name or dotted path; null when absent or a segment is empty.
const Node* lookupPath(const Node* group, const char* path, size_t length);

bool nodesEqual(const Node* a, const Node* b);
std::string nodeToXml(const Node* node);
std::string nodeToBinary(const Node* node);
const Node* parseBinaryNode(const void* data, size_t length);

template <typename T>
inline const DataNode<T>* asData(const Node* node) {
  return node != nullptr && node->type == TypeCode<T>::value
             ? static_cast<const DataNode<T>*>(node)
             : nullptr;
}
inline const GroupNode* asGroup(const Node* node) {
  return node != nullptr && node->type == kXoAttributeTypeGroup
             ? static_cast<const GroupNode*>(node)
             : nullptr;
}

}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
