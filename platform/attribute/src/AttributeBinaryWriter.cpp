#include <algorithm>
#include <cstring>
#include <type_traits>

#include "AttributeBinaryFormat.h"
#include "AttributeNode.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

namespace {

void putU8(std::string& out, uint8_t v) { out += static_cast<char>(v); }

void putU16(std::string& out, uint16_t v) {
  char b[2] = {static_cast<char>(v), static_cast<char>(v >> 8)};
  out.append(b, 2);
}

void putU32(std::string& out, uint32_t v) {
  char b[4];
  for (int i = 0; i < 4; ++i) b[i] = static_cast<char>(v >> (8 * i));
  out.append(b, 4);
}

void putU64(std::string& out, uint64_t v) {
  char b[8];
  for (int i = 0; i < 8; ++i) b[i] = static_cast<char>(v >> (8 * i));
  out.append(b, 8);
}

template <typename T>
void putNumbers(std::string& out, const Node* node) {
  auto* data = static_cast<const DataNode<T>*>(node);
  putU32(out, static_cast<uint32_t>(data->tupleSize));
  putU64(out, data->values.size());
  if (data->values.empty()) return;
  if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
    out.append(reinterpret_cast<const char*>(data->values.data()), data->values.size() * sizeof(T));
  } else {
    for (T value : data->values) {
      typename std::conditional<sizeof(T) == 8, uint64_t, uint32_t>::type bits;
      std::memcpy(&bits, &value, sizeof(T));
      if constexpr (sizeof(T) == 8) putU64(out, bits); else putU32(out, bits);
    }
  }
}

// Length-prefixed bytes; false when the length does not fit 32 bits.
bool putText(std::string& out, const std::string& text) {
  if (text.size() > UINT32_MAX) return false;
  putU32(out, static_cast<uint32_t>(text.size()));
  out += text;
  return true;
}

// Writes a leaf whole, or a group's header (true when it has children).
bool putNode(std::string& out, const Node* node, bool* ok) {
  putU8(out, static_cast<uint8_t>(node->type));
  switch (node->type) {
    case kXoAttributeTypeNull: return false;
    case kXoAttributeTypeInt: putNumbers<int32_t>(out, node); return false;
    case kXoAttributeTypeFloat: putNumbers<float>(out, node); return false;
    case kXoAttributeTypeDouble: putNumbers<double>(out, node); return false;
    case kXoAttributeTypeString: {
      auto* data = static_cast<const StringNode*>(node);
      putU32(out, static_cast<uint32_t>(data->tupleSize));
      putU64(out, data->values.size());
      for (const std::string& value : data->values) *ok = *ok && putText(out, value);
      return false;
    }
    default: break;
  }
  auto* group = static_cast<const GroupNode*>(node);
  putU8(out, group->groupInherit ? binary::kGroupInheritFlag : 0);
  if (group->children.size() > UINT32_MAX) *ok = false;
  putU32(out, static_cast<uint32_t>(group->children.size()));
  return !group->children.empty();
}

}  // namespace

std::string nodeToBinary(const Node* root) {
  std::string out;
  if (root == nullptr) return out;
  out.append(reinterpret_cast<const char*>(binary::kMagic), sizeof(binary::kMagic));
  putU16(out, binary::kVersion);
  putU16(out, 0);

  struct Frame {
    const GroupNode* group;
    size_t next;
  };
  std::vector<Frame> stack;
  bool ok = true;
  if (putNode(out, root, &ok)) stack.push_back({static_cast<const GroupNode*>(root), 0});
  size_t depth = root->type == kXoAttributeTypeGroup ? 1 : 0;
  while (!stack.empty() && ok) {
    Frame& frame = stack.back();
    if (frame.next == frame.group->children.size()) {
      stack.pop_back();
      continue;
    }
    const GroupChild& child = frame.group->children[frame.next++];
    ok = putText(out, child.name);
    const Node* node = child.node.get();
    // The reader refuses trees deeper than the cap, so never write one.
    if (node->type == kXoAttributeTypeGroup) depth = std::max(depth, stack.size() + 1);
    if (depth > binary::kMaxDepth) ok = false;
    if (putNode(out, node, &ok)) stack.push_back({static_cast<const GroupNode*>(node), 0});
  }
  if (!ok) out.clear();
  return out;
}

}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
