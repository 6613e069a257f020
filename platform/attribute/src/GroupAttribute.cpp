#include "AttributeNode.h"
#include "XoAttribute/Attribute.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {

namespace {

XoAttributeStruct* groupOrNull(const Attribute& attr) {
  XoAttributeStruct* handle = attr.getHandle();
  if (detail::asGroup(handle) == nullptr) return nullptr;
  detail::retainNode(handle);
  return handle;
}

}  // namespace

GroupAttribute::GroupAttribute(const Attribute& attr) : Attribute(groupOrNull(attr)) {}

size_t GroupAttribute::getNumberOfChildren() const {
  auto* group = detail::asGroup(handle_);
  return group == nullptr ? 0 : group->children.size();
}

std::string GroupAttribute::getChildName(size_t index) const {
  auto* group = detail::asGroup(handle_);
  if (group == nullptr || index >= group->children.size()) return std::string();
  return group->children[index].name;
}

Attribute GroupAttribute::getChildByIndex(size_t index) const {
  auto* group = detail::asGroup(handle_);
  if (group == nullptr || index >= group->children.size()) return Attribute();
  return fromHandle(const_cast<XoAttributeStruct*>(group->children[index].node.get()));
}

Attribute GroupAttribute::getChildByName(const std::string& nameOrPath) const {
  const detail::Node* child = detail::lookupPath(handle_, nameOrPath.data(), nameOrPath.size());
  return fromHandle(const_cast<XoAttributeStruct*>(child));
}

bool GroupAttribute::getGroupInherit() const {
  auto* group = detail::asGroup(handle_);
  return group != nullptr && group->groupInherit;
}

}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
