#include "XoAttribute/Attribute.h"

#include "AttributeNode.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {

using detail::NodePtr;

Attribute::Attribute(const Attribute& other) : handle_(other.handle_) {
  detail::retainNode(handle_);
}

Attribute::Attribute(Attribute&& other) noexcept : handle_(other.handle_) {
  other.handle_ = nullptr;
}

Attribute& Attribute::operator=(const Attribute& other) {
  if (handle_ != other.handle_) {
    detail::retainNode(other.handle_);
    detail::releaseNode(handle_);
    handle_ = other.handle_;
  }
  return *this;
}

Attribute& Attribute::operator=(Attribute&& other) noexcept {
  if (this != &other) {
    detail::releaseNode(handle_);
    handle_ = other.handle_;
    other.handle_ = nullptr;
  }
  return *this;
}

Attribute::~Attribute() { detail::releaseNode(handle_); }

AttributeType Attribute::getType() const {
  return handle_ == nullptr ? kTypeInvalid : static_cast<AttributeType>(handle_->type);
}

std::string Attribute::getXML() const { return detail::nodeToXml(handle_); }

std::string Attribute::getBinary() const { return detail::nodeToBinary(handle_); }

Attribute Attribute::parseBinary(const void* data, size_t length) {
  return adoptHandle(const_cast<XoAttributeStruct*>(detail::parseBinaryNode(data, length)));
}

bool Attribute::operator==(const Attribute& other) const {
  return detail::nodesEqual(handle_, other.handle_);
}

XoAttributeStruct* Attribute::getRetainedHandle() const {
  detail::retainNode(handle_);
  return handle_;
}

Attribute Attribute::fromHandle(XoAttributeStruct* handle) {
  detail::retainNode(handle);
  return Attribute(handle);
}

Attribute Attribute::adoptHandle(XoAttributeStruct* handle) { return Attribute(handle); }

NullAttribute::NullAttribute() : Attribute(new detail::NullNode()) {}

}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
