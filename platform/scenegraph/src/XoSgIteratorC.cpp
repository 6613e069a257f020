#include "XoScenegraph/XoSgIteratorC.h"

#include "OpTree.h"

namespace {

using Arbolite3::internal::detail::OpTreeLocation;

XoSgIteratorStruct* cursorAt(const XoSgIteratorStruct* from, const OpTreeLocation* location) {
  if (location == nullptr) return nullptr;
  return new XoSgIteratorStruct(from->tree, location);
}

}  // namespace

extern "C" {

void XoSgIteratorRetain(XoSgIteratorStruct* it) {
  if (it != nullptr) it->refCount.fetch_add(1, std::memory_order_relaxed);
}

void XoSgIteratorRelease(XoSgIteratorStruct* it) {
  if (it != nullptr && it->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete it;
}

const char* XoSgIteratorGetName(const XoSgIteratorStruct* it) {
  return it == nullptr ? "" : it->location->name.c_str();
}

const char* XoSgIteratorGetFullName(const XoSgIteratorStruct* it) {
  return it == nullptr ? "" : it->location->fullName.c_str();
}

const char* XoSgIteratorGetType(const XoSgIteratorStruct* it) {
  return it == nullptr ? "" : it->location->type.c_str();
}

XoAttributeStruct* XoSgIteratorGetAttribute(const XoSgIteratorStruct* it, const char* nameOrPath) {
  if (it == nullptr || nameOrPath == nullptr) return nullptr;
  return XoAttributeGetChildByName(it->location->attributes.getHandle(), nameOrPath);
}

XoAttributeStruct* XoSgIteratorGetAttributes(const XoSgIteratorStruct* it) {
  return it == nullptr ? nullptr : it->location->attributes.getHandle();
}

XoSgIteratorStruct* XoSgIteratorGetFirstChild(const XoSgIteratorStruct* it) {
  if (it == nullptr || it->location->children.empty()) return nullptr;
  return cursorAt(it, it->location->children.front().get());
}

XoSgIteratorStruct* XoSgIteratorGetNextSibling(const XoSgIteratorStruct* it) {
  if (it == nullptr || it->location->parent == nullptr) return nullptr;
  const auto& siblings = it->location->parent->children;
  const size_t next = it->location->indexInParent + 1;
  return next < siblings.size() ? cursorAt(it, siblings[next].get()) : nullptr;
}

XoSgIteratorStruct* XoSgIteratorGetChildByName(const XoSgIteratorStruct* it, const char* name) {
  if (it == nullptr || name == nullptr) return nullptr;
  const auto found = it->location->childIndex.find(name);
  if (found == it->location->childIndex.end()) return nullptr;
  return cursorAt(it, it->location->children[found->second].get());
}

}  // extern "C"
