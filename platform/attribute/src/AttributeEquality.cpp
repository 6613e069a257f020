#include <cstring>

#include "AttributeNode.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

namespace {

// Numbers compare bit for bit: a NaN equals the same NaN, and 0.0 differs
// from -0.0, which is what a round trip through text or bytes must keep.
template <typename T>
bool numbersEqual(const Node* a, const Node* b) {
  auto* x = static_cast<const DataNode<T>*>(a);
  auto* y = static_cast<const DataNode<T>*>(b);
  return x->tupleSize == y->tupleSize && x->values.size() == y->values.size() &&
         (x->values.empty() ||
          std::memcmp(x->values.data(), y->values.data(), x->values.size() * sizeof(T)) == 0);
}

}  // namespace

bool nodesEqual(const Node* a, const Node* b) {
  // Iterative, so that the depth of the trees does not matter.
  std::vector<std::pair<const Node*, const Node*>> pending{{a, b}};
  while (!pending.empty()) {
    auto [x, y] = pending.back();
    pending.pop_back();
    if (x == y) continue;
    if (x == nullptr || y == nullptr || x->type != y->type) return false;
    switch (x->type) {
      case kXoAttributeTypeNull:
        break;
      case kXoAttributeTypeInt:
        if (!numbersEqual<int32_t>(x, y)) return false;
        break;
      case kXoAttributeTypeFloat:
        if (!numbersEqual<float>(x, y)) return false;
        break;
      case kXoAttributeTypeDouble:
        if (!numbersEqual<double>(x, y)) return false;
        break;
      case kXoAttributeTypeString: {
        auto* s = static_cast<const StringNode*>(x);
        auto* t = static_cast<const StringNode*>(y);
        if (s->tupleSize != t->tupleSize || s->values != t->values) return false;
        break;
      }
      case kXoAttributeTypeGroup: {
        auto* g = static_cast<const GroupNode*>(x);
        auto* h = static_cast<const GroupNode*>(y);
        if (g->groupInherit != h->groupInherit || g->children.size() != h->children.size()) {
          return false;
        }
        for (size_t i = 0; i < g->children.size(); ++i) {
          if (g->children[i].name != h->children[i].name) return false;
          pending.emplace_back(g->children[i].node.get(), h->children[i].node.get());
        }
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
