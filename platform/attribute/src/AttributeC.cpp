// The C boundary over the nodes. Every function accepts null handles.
#include <cstdlib>
#include <cstring>

#include "AttributeNode.h"
#include "XoAttribute/XoAttributeC.h"

using namespace Arbolite3::internal::XoAttribute::detail;

namespace {

char* copyToMalloc(const std::string& text) {
  char* out = static_cast<char*>(std::malloc(text.size() + 1));
  if (out == nullptr) return nullptr;
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return out;
}

XoAttributeStruct* mutableHandle(const Node* node) { return const_cast<XoAttributeStruct*>(node); }

template <typename T>
XoAttributeStruct* createNumbers(const T* values, size_t count, size_t tupleSize) {
  if (values == nullptr && count != 0) return nullptr;
  std::vector<T> copy(count);
  if (count != 0) std::memcpy(copy.data(), values, count * sizeof(T));
  return mutableHandle(makeDataNode(std::move(copy), tupleSize));
}

}  // namespace

extern "C" {

void XoAttributeRetain(XoAttributeStruct* attr) { retainNode(attr); }

void XoAttributeRelease(XoAttributeStruct* attr) { releaseNode(attr); }

int XoAttributeGetType(const XoAttributeStruct* attr) {
  return attr == nullptr ? kXoAttributeTypeInvalid : attr->type;
}

size_t XoAttributeGetNumberOfValues(const XoAttributeStruct* attr) {
  if (auto* n = asData<int32_t>(attr)) return n->values.size();
  if (auto* n = asData<float>(attr)) return n->values.size();
  if (auto* n = asData<double>(attr)) return n->values.size();
  if (auto* n = asData<std::string>(attr)) return n->values.size();
  return 0;
}

size_t XoAttributeGetTupleSize(const XoAttributeStruct* attr) {
  if (auto* n = asData<int32_t>(attr)) return n->tupleSize;
  if (auto* n = asData<float>(attr)) return n->tupleSize;
  if (auto* n = asData<double>(attr)) return n->tupleSize;
  if (auto* n = asData<std::string>(attr)) return n->tupleSize;
  return 0;
}

const int32_t* XoAttributeGetIntValues(const XoAttributeStruct* attr) {
  auto* n = asData<int32_t>(attr);
  return n == nullptr || n->values.empty() ? nullptr : n->values.data();
}

const float* XoAttributeGetFloatValues(const XoAttributeStruct* attr) {
  auto* n = asData<float>(attr);
  return n == nullptr || n->values.empty() ? nullptr : n->values.data();
}

const double* XoAttributeGetDoubleValues(const XoAttributeStruct* attr) {
  auto* n = asData<double>(attr);
  return n == nullptr || n->values.empty() ? nullptr : n->values.data();
}

const char* XoAttributeGetStringValue(const XoAttributeStruct* attr, size_t index) {
  auto* n = asData<std::string>(attr);
  return n == nullptr || index >= n->values.size() ? nullptr : n->values[index].c_str();
}

size_t XoAttributeGetStringLength(const XoAttributeStruct* attr, size_t index) {
  auto* n = asData<std::string>(attr);
  return n == nullptr || index >= n->values.size() ? 0 : n->values[index].size();
}

size_t XoAttributeGetNumberOfChildren(const XoAttributeStruct* group) {
  auto* g = asGroup(group);
  return g == nullptr ? 0 : g->children.size();
}

const char* XoAttributeGetChildName(const XoAttributeStruct* group, size_t index) {
  auto* g = asGroup(group);
  return g == nullptr || index >= g->children.size() ? nullptr : g->children[index].name.c_str();
}

XoAttributeStruct* XoAttributeGetChildByIndex(const XoAttributeStruct* group, size_t index) {
  auto* g = asGroup(group);
  return g == nullptr || index >= g->children.size() ? nullptr
                                                     : mutableHandle(g->children[index].node.get());
}

XoAttributeStruct* XoAttributeGetChildByName(const XoAttributeStruct* group, const char* name) {
  if (name == nullptr) return nullptr;
  return mutableHandle(lookupPath(group, name, std::strlen(name)));
}

int XoAttributeGetGroupInherit(const XoAttributeStruct* group) {
  auto* g = asGroup(group);
  return g != nullptr && g->groupInherit ? 1 : 0;
}

int XoAttributeEquals(const XoAttributeStruct* a, const XoAttributeStruct* b) {
  return nodesEqual(a, b) ? 1 : 0;
}

char* XoAttributeGetXML(const XoAttributeStruct* attr) {
  if (attr == nullptr) return nullptr;
  return copyToMalloc(nodeToXml(attr));
}

void XoAttributeFreeText(char* text) { std::free(text); }

char* XoAttributeGetBinary(const XoAttributeStruct* attr, size_t* length) {
  if (length != nullptr) *length = 0;
  std::string bytes = nodeToBinary(attr);
  if (bytes.empty()) return nullptr;
  char* out = copyToMalloc(bytes);
  if (out != nullptr && length != nullptr) *length = bytes.size();
  return out;
}

XoAttributeStruct* XoAttributeParseBinary(const void* data, size_t length) {
  return mutableHandle(parseBinaryNode(data, length));
}

XoAttributeStruct* XoAttributeCreateNull(void) { return new NullNode(); }

XoAttributeStruct* XoAttributeCreateInt(const int32_t* values, size_t count, size_t tupleSize) {
  return createNumbers(values, count, tupleSize);
}

XoAttributeStruct* XoAttributeCreateFloat(const float* values, size_t count, size_t tupleSize) {
  return createNumbers(values, count, tupleSize);
}

XoAttributeStruct* XoAttributeCreateDouble(const double* values, size_t count, size_t tupleSize) {
  return createNumbers(values, count, tupleSize);
}

XoAttributeStruct* XoAttributeCreateStringWithLengths(const char* const* values,
                                                      const size_t* lengths, size_t count,
                                                      size_t tupleSize) {
  if (values == nullptr && count != 0) return nullptr;
  std::vector<std::string> copy;
  copy.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    if (values[i] == nullptr) return nullptr;
    copy.emplace_back(values[i], lengths != nullptr ? lengths[i] : std::strlen(values[i]));
  }
  return mutableHandle(makeDataNode(std::move(copy), tupleSize));
}

XoAttributeStruct* XoAttributeCreateString(const char* const* values, size_t count,
                                           size_t tupleSize) {
  return XoAttributeCreateStringWithLengths(values, nullptr, count, tupleSize);
}

}  // extern "C"
