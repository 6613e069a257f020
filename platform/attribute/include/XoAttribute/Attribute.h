// The attribute family: immutable, reference-counted values that are safe to
// share between threads. Data attributes are arrays of values with a tuple
// size; groups are ordered lists of named children.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "XoAttribute/XoAttributeC.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {

enum AttributeType {
  kTypeInvalid = kXoAttributeTypeInvalid,
  kTypeNull = kXoAttributeTypeNull,
  kTypeInt = kXoAttributeTypeInt,
  kTypeFloat = kXoAttributeTypeFloat,
  kTypeDouble = kXoAttributeTypeDouble,
  kTypeString = kXoAttributeTypeString,
  kTypeGroup = kXoAttributeTypeGroup,
};

// A handle to an attribute, or an invalid handle. Copying shares the value.
class Attribute {
 public:
  Attribute() = default;
  Attribute(const Attribute& other);
  Attribute(Attribute&& other) noexcept;
  Attribute& operator=(const Attribute& other);
  Attribute& operator=(Attribute&& other) noexcept;
  ~Attribute();

  bool isValid() const { return handle_ != nullptr; }
  AttributeType getType() const;

  // Deterministic, escaped XML text (see docs/attribute-xml.md); "" for an
  // invalid attribute.
  std::string getXML() const;

  // Versioned little-endian binary form (see docs/attribute-binary.md);
  // "" for an invalid attribute.
  std::string getBinary() const;
  // Invalid attribute for malformed, truncated or over-long input. Never reads
  // outside [data, data + length).
  static Attribute parseBinary(const void* data, size_t length);

  // Deep value equality (type, tuple size, values, child names and order).
  bool operator==(const Attribute& other) const;
  bool operator!=(const Attribute& other) const { return !(*this == other); }

  // The C handle, borrowed: valid while this object (or a copy) lives.
  XoAttributeStruct* getHandle() const { return handle_; }
  // The C handle with one more reference, for a receiver that keeps it.
  XoAttributeStruct* getRetainedHandle() const;
  // Wraps a C handle, taking one more reference (the caller keeps its own).
  static Attribute fromHandle(XoAttributeStruct* handle);
  // Wraps a C handle, adopting the caller's reference.
  static Attribute adoptHandle(XoAttributeStruct* handle);

 protected:
  explicit Attribute(XoAttributeStruct* adopted) : handle_(adopted) {}
  XoAttributeStruct* handle_ = nullptr;
};

class NullAttribute : public Attribute {
 public:
  NullAttribute();
};

// Typed views. Constructing one from an Attribute of another type gives an
// invalid handle.
template <typename T, int kType>
class DataAttribute : public Attribute {
 public:
  using value_type = T;
  DataAttribute() = default;
  explicit DataAttribute(const Attribute& attr);
  explicit DataAttribute(T value);
  DataAttribute(const T* values, size_t count, size_t tupleSize);

  size_t getNumberOfValues() const;
  size_t getTupleSize() const;
  // First value, or defaultValue when invalid or empty.
  T getValue(T defaultValue = T()) const;
  std::vector<T> getValues() const;
};

// Instantiated in the library only.
extern template class DataAttribute<int32_t, kTypeInt>;
extern template class DataAttribute<float, kTypeFloat>;
extern template class DataAttribute<double, kTypeDouble>;

using IntAttribute = DataAttribute<int32_t, kTypeInt>;
using FloatAttribute = DataAttribute<float, kTypeFloat>;
using DoubleAttribute = DataAttribute<double, kTypeDouble>;

class StringAttribute : public Attribute {
 public:
  StringAttribute() = default;
  explicit StringAttribute(const Attribute& attr);
  explicit StringAttribute(const std::string& value);
  StringAttribute(const std::vector<std::string>& values, size_t tupleSize);

  size_t getNumberOfValues() const;
  size_t getTupleSize() const;
  std::string getValue(const std::string& defaultValue = std::string()) const;
  std::vector<std::string> getValues() const;
};

class GroupAttribute : public Attribute {
 public:
  GroupAttribute() = default;
  explicit GroupAttribute(const Attribute& attr);

  size_t getNumberOfChildren() const;
  std::string getChildName(size_t index) const;
  Attribute getChildByIndex(size_t index) const;
  // Name or dotted path ("a.b.c"); invalid when absent.
  Attribute getChildByName(const std::string& nameOrPath) const;
  bool getGroupInherit() const;
};

// Not thread-safe: a builder belongs to one thread at a time. The groups it
// builds are immutable and may be shared freely.
class GroupBuilder {
 public:
  enum BuilderMode {
    // build() keeps nothing: the builder is empty afterwards.
    BuildAndFlush = 0,
    // build() leaves the builder's contents for further use.
    BuildAndRetain = 1,
  };

  GroupBuilder();
  ~GroupBuilder();
  GroupBuilder(const GroupBuilder&) = delete;
  GroupBuilder& operator=(const GroupBuilder&) = delete;

  // Sets a child; a dotted name ("a.b") creates or enters intermediate groups.
  // groupInherit marks intermediate groups created on the way (existing
  // groups keep their flag; a non-group on the way is replaced). An invalid
  // attr removes the child; an empty name or one with an empty segment
  // ("a..b", ".a", "a.") is ignored.
  GroupBuilder& set(const std::string& name, const Attribute& attr,
                    bool groupInherit = true);
  // Shallow merge: each child of `group` replaces the same-named child here
  // (keeping its position), new names are appended in order. Invalid or
  // non-group arguments are ignored.
  GroupBuilder& update(const GroupAttribute& group);
  // Removes a child by name or dotted path; absent names are ignored.
  GroupBuilder& del(const std::string& name);
  GroupBuilder& setGroupInherit(bool groupInherit);
  bool isValid() const { return true; }

  // BuildAndFlush also resets groupInherit to its default, true.
  GroupAttribute build(int mode = BuildAndFlush);

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
