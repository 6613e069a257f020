// The C group builder wraps the C++ one.
#include "XoAttribute/Attribute.h"
#include "XoAttribute/XoAttributeC.h"

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::GroupBuilder;

struct XoGroupBuilderStruct {
  GroupBuilder builder;
};

namespace {

Attribute borrow(const XoAttributeStruct* attr) {
  return Attribute::fromHandle(const_cast<XoAttributeStruct*>(attr));
}

}  // namespace

extern "C" {

XoGroupBuilderStruct* XoGroupBuilderCreate(void) { return new XoGroupBuilderStruct(); }

void XoGroupBuilderDestroy(XoGroupBuilderStruct* builder) { delete builder; }

void XoGroupBuilderSet(XoGroupBuilderStruct* builder, const char* name,
                       const XoAttributeStruct* attr, int groupInherit) {
  if (builder == nullptr || name == nullptr) return;
  builder->builder.set(name, borrow(attr), groupInherit != 0);
}

void XoGroupBuilderUpdate(XoGroupBuilderStruct* builder, const XoAttributeStruct* group) {
  if (builder == nullptr) return;
  builder->builder.update(GroupAttribute(borrow(group)));
}

void XoGroupBuilderDel(XoGroupBuilderStruct* builder, const char* name) {
  if (builder == nullptr || name == nullptr) return;
  builder->builder.del(name);
}

void XoGroupBuilderSetGroupInherit(XoGroupBuilderStruct* builder, int groupInherit) {
  if (builder == nullptr) return;
  builder->builder.setGroupInherit(groupInherit != 0);
}

XoAttributeStruct* XoGroupBuilderBuild(XoGroupBuilderStruct* builder, int mode) {
  if (builder == nullptr) return nullptr;
  return builder->builder.build(mode).getRetainedHandle();
}

}  // extern "C"
