// The loaded form of an Op tree file, and the node cursor that the C handle
// XoSgIteratorStruct* points at. A loaded tree is never changed, so cursors
// on it can be used from any thread; only their reference counts are shared
// writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "XoAttribute/Attribute.h"
#include "XoScenegraph/XoSgIteratorC.h"

namespace Arbolite3 {
namespace internal {
namespace detail {

struct OpTreeLocation {
  std::string name;
  std::string fullName;
  std::string type;
  XoAttribute::GroupAttribute attributes;
  std::vector<std::unique_ptr<OpTreeLocation>> children;
  std::map<std::string, size_t> childIndex;
  const OpTreeLocation* parent = nullptr;
  size_t indexInParent = 0;
};

struct OpTree {
  std::unique_ptr<OpTreeLocation> root;
};

// Reads an Op tree from JSON text; null with a reason on failure.
std::shared_ptr<const OpTree> readOpTree(const char* data, size_t size, std::string* error);

}  // namespace detail
}  // namespace internal
}  // namespace Arbolite3

struct XoSgIteratorStruct {
  XoSgIteratorStruct(std::shared_ptr<const Arbolite3::internal::detail::OpTree> t,
                     const Arbolite3::internal::detail::OpTreeLocation* l)
      : tree(std::move(t)), location(l) {}

  std::atomic<uint32_t> refCount{1};
  // Keeps the whole tree alive for as long as any cursor on it exists.
  const std::shared_ptr<const Arbolite3::internal::detail::OpTree> tree;
  const Arbolite3::internal::detail::OpTreeLocation* const location;
};
