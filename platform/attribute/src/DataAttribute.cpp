#include "AttributeNode.h"
#include "XoAttribute/Attribute.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {

namespace {

template <typename T>
XoAttributeStruct* sameTypeOrNull(const Attribute& attr) {
  XoAttributeStruct* handle = attr.getHandle();
  if (detail::asData<T>(handle) == nullptr) return nullptr;
  detail::retainNode(handle);
  return handle;
}

template <typename T>
XoAttributeStruct* makeHandle(std::vector<T>&& values, size_t tupleSize) {
  return const_cast<XoAttributeStruct*>(detail::makeDataNode(std::move(values), tupleSize));
}

}  // namespace

template <typename T, int kType>
DataAttribute<T, kType>::DataAttribute(const Attribute& attr)
    : Attribute(sameTypeOrNull<T>(attr)) {}

template <typename T, int kType>
DataAttribute<T, kType>::DataAttribute(T value)
    : Attribute(makeHandle(std::vector<T>{value}, 1)) {}

template <typename T, int kType>
DataAttribute<T, kType>::DataAttribute(const T* values, size_t count, size_t tupleSize)
    : Attribute(values == nullptr && count != 0
                    ? nullptr
                    : makeHandle(count == 0 ? std::vector<T>() : std::vector<T>(values, values + count),
                                 tupleSize)) {}

template <typename T, int kType>
size_t DataAttribute<T, kType>::getNumberOfValues() const {
  auto* node = detail::asData<T>(handle_);
  return node == nullptr ? 0 : node->values.size();
}

template <typename T, int kType>
size_t DataAttribute<T, kType>::getTupleSize() const {
  auto* node = detail::asData<T>(handle_);
  return node == nullptr ? 0 : node->tupleSize;
}

template <typename T, int kType>
T DataAttribute<T, kType>::getValue(T defaultValue) const {
  auto* node = detail::asData<T>(handle_);
  return node == nullptr || node->values.empty() ? defaultValue : node->values.front();
}

template <typename T, int kType>
std::vector<T> DataAttribute<T, kType>::getValues() const {
  auto* node = detail::asData<T>(handle_);
  return node == nullptr ? std::vector<T>() : node->values;
}

template class DataAttribute<int32_t, kTypeInt>;
template class DataAttribute<float, kTypeFloat>;
template class DataAttribute<double, kTypeDouble>;

StringAttribute::StringAttribute(const Attribute& attr)
    : Attribute(sameTypeOrNull<std::string>(attr)) {}

StringAttribute::StringAttribute(const std::string& value)
    : Attribute(makeHandle(std::vector<std::string>{value}, 1)) {}

StringAttribute::StringAttribute(const std::vector<std::string>& values, size_t tupleSize)
    : Attribute(makeHandle(std::vector<std::string>(values), tupleSize)) {}

size_t StringAttribute::getNumberOfValues() const {
  auto* node = detail::asData<std::string>(handle_);
  return node == nullptr ? 0 : node->values.size();
}

size_t StringAttribute::getTupleSize() const {
  auto* node = detail::asData<std::string>(handle_);
  return node == nullptr ? 0 : node->tupleSize;
}

std::string StringAttribute::getValue(const std::string& defaultValue) const {
  auto* node = detail::asData<std::string>(handle_);
  return node == nullptr || node->values.empty() ? defaultValue : node->values.front();
}

std::vector<std::string> StringAttribute::getValues() const {
  auto* node = detail::asData<std::string>(handle_);
  return node == nullptr ? std::vector<std::string>() : node->values;
}

}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
