#include "XoScenegraph/AttributeJson.h"

#include <limits>
#include <vector>

#include "JsonReading.h"

namespace Arbolite3 {
namespace internal {

using namespace XoAttribute;

namespace detail {

bool validChildName(const std::string& name, std::string* reason) {
  if (name.empty()) {
    *reason = "empty child name";
    return false;
  }
  if (name.find('.') != std::string::npos) {
    *reason = "child name \"" + name + "\" contains '.'";
    return false;
  }
  if (name.find('\0') != std::string::npos) {
    *reason = "child name contains a NUL character";
    return false;
  }
  return true;
}

namespace {

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

bool fail(std::string* error, const std::string& path, const std::string& reason) {
  if (error != nullptr) *error = path.empty() ? reason : "attribute " + quoted(path) + ": " + reason;
  return false;
}

std::string childPath(const std::string& path, const std::string& name) {
  return path.empty() ? name : path + "." + name;
}

std::string jsonKey(const rapidjson::Value& key) {
  return std::string(key.GetString(), key.GetStringLength());
}


// Element readers for the typed form and the shorthand arrays.
bool readInt(const rapidjson::Value& v, int32_t* out, std::string* why) {
  return numberToInt(v, out, why);
}

// Plain JSON has no NaN or infinities; the typed form spells them as texts.
template <typename T>
bool nonFinite(const rapidjson::Value& v, T* out) {
  if (!isText(v)) return false;
  const std::string text = jsonKey(v);
  if (text == "NaN") *out = std::numeric_limits<T>::quiet_NaN();
  else if (text == "Infinity") *out = std::numeric_limits<T>::infinity();
  else if (text == "-Infinity") *out = -std::numeric_limits<T>::infinity();
  else return false;
  return true;
}

bool readFloat(const rapidjson::Value& v, float* out, std::string* why) {
  return nonFinite(v, out) || numberToFloat(v, out, why);
}

bool readDouble(const rapidjson::Value& v, double* out, std::string* why) {
  return nonFinite(v, out) || numberToDouble(v, out, why);
}

bool readString(const rapidjson::Value& v, std::string* out, std::string* why) {
  if (!isText(v)) {
    *why = "string expected";
    return false;
  }
  *out = jsonKey(v);
  return true;
}

// `value` is a scalar or an array of scalars.
template <typename T, typename Reader>
bool readValues(const rapidjson::Value& value, Reader reader, std::vector<T>* out, std::string* why) {
  if (!value.IsArray()) {
    T one{};
    if (!reader(value, &one, why)) return false;
    out->push_back(std::move(one));
    return true;
  }
  out->reserve(value.Size());
  for (rapidjson::SizeType i = 0; i < value.Size(); ++i) {
    T one{};
    if (!reader(value[i], &one, why)) {
      *why = "element " + std::to_string(i) + ": " + *why;
      return false;
    }
    out->push_back(std::move(one));
  }
  return true;
}

Attribute groupFromObject(const rapidjson::Value& object, const std::string& path, int depth,
                          bool groupInherit, bool reservedNames, std::string* error) {
  if (depth >= kMaxAttributeDepth) {
    fail(error, path, "groups nested deeper than " + std::to_string(kMaxAttributeDepth));
    return Attribute();
  }
  GroupBuilder builder;
  std::vector<std::string> seen;
  for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it) {
    const std::string name = jsonKey(it->name);
    std::string reason;
    if (!validChildName(name, &reason)) {
      fail(error, path, reason);
      return Attribute();
    }
    if (reservedNames && name[0] == '$') {
      fail(error, path,
           "key " + quoted(name) + " is reserved (a \"$type\" form, or a group child name without '$')");
      return Attribute();
    }
    // Groups are small; a linear check keeps the order and needs no hashing.
    for (const std::string& other : seen) {
      if (other == name) {
        fail(error, path, "duplicate child name " + quoted(name));
        return Attribute();
      }
    }
    seen.push_back(name);
    Attribute child = attributeFromJsonValue(it->value, childPath(path, name), depth + 1, error);
    if (!child.isValid()) return Attribute();
    builder.set(name, child);
  }
  builder.setGroupInherit(groupInherit);
  return builder.build();
}

Attribute makeData(const std::vector<int32_t>& v, size_t tuple) {
  return IntAttribute(v.data(), v.size(), tuple);
}
Attribute makeData(const std::vector<float>& v, size_t tuple) {
  return FloatAttribute(v.data(), v.size(), tuple);
}
Attribute makeData(const std::vector<double>& v, size_t tuple) {
  return DoubleAttribute(v.data(), v.size(), tuple);
}
Attribute makeData(const std::vector<std::string>& v, size_t tuple) { return StringAttribute(v, tuple); }

template <typename T, typename Reader>
Attribute typedData(const rapidjson::Value* value, size_t tupleSize, Reader reader,
                    const std::string& path, std::string* error) {
  std::vector<T> values;
  std::string why;
  if (value != nullptr && !readValues<T>(*value, reader, &values, &why)) {
    fail(error, path, "\"$value\": " + why);
    return Attribute();
  }
  if (values.size() % tupleSize != 0) {
    fail(error, path,
         std::to_string(values.size()) + " values do not fill tuples of " + std::to_string(tupleSize));
    return Attribute();
  }
  return makeData(values, tupleSize);
}

Attribute typedForm(const rapidjson::Value& object, const std::string& path, int depth,
                    std::string* error) {
  const rapidjson::Value* type = nullptr;
  const rapidjson::Value* value = nullptr;
  const rapidjson::Value* tuple = nullptr;
  const rapidjson::Value* inherit = nullptr;
  for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it) {
    const std::string key = jsonKey(it->name);
    const rapidjson::Value** slot = key == "$type"           ? &type
                                    : key == "$value"        ? &value
                                    : key == "$tupleSize"    ? &tuple
                                    : key == "$groupInherit" ? &inherit
                                                             : nullptr;
    if (slot == nullptr) {
      fail(error, path,
           "unknown key " + quoted(key) +
               " beside \"$type\" (allowed: $type, $value, $tupleSize, $groupInherit)");
      return Attribute();
    }
    if (*slot != nullptr) {
      fail(error, path, "duplicate key " + quoted(key));
      return Attribute();
    }
    *slot = &it->value;
  }
  if (!isText(*type)) {
    fail(error, path, "\"$type\" must be a string");
    return Attribute();
  }
  const std::string typeName = jsonKey(*type);
  const bool isGroup = typeName == "group";
  const bool isNull = typeName == "null";
  if (inherit != nullptr && !isGroup) {
    fail(error, path, "\"$groupInherit\" applies to groups only");
    return Attribute();
  }
  if (tuple != nullptr && (isGroup || isNull)) {
    fail(error, path, "\"$tupleSize\" applies to data types only");
    return Attribute();
  }
  size_t tupleSize = 1;
  if (tuple != nullptr) {
    uint32_t size = 0;
    std::string why;
    if (!numberToUint(*tuple, &size, &why) || size == 0) {
      fail(error, path, "\"$tupleSize\" must be a positive integer");
      return Attribute();
    }
    tupleSize = size;
  }

  if (isNull) {
    if (value != nullptr && !value->IsNull()) {
      fail(error, path, "a null attribute has no \"$value\"");
      return Attribute();
    }
    return NullAttribute();
  }
  if (isGroup) {
    if (inherit != nullptr && !inherit->IsBool()) {
      fail(error, path, "\"$groupInherit\" must be true or false");
      return Attribute();
    }
    if (value != nullptr && !value->IsObject()) {
      fail(error, path, "\"$value\" of a group must be an object");
      return Attribute();
    }
    const bool groupInherit = inherit == nullptr || inherit->GetBool();
    static const rapidjson::Value kEmptyObject(rapidjson::kObjectType);
    return groupFromObject(value != nullptr ? *value : kEmptyObject, path, depth, groupInherit,
                           false, error);
  }
  if (typeName == "int") return typedData<int32_t>(value, tupleSize, readInt, path, error);
  if (typeName == "float")
    return typedData<float>(value, tupleSize, readFloat, path, error);
  if (typeName == "double")
    return typedData<double>(value, tupleSize, readDouble, path, error);
  if (typeName == "string")
    return typedData<std::string>(value, tupleSize, readString, path, error);
  fail(error, path,
       "unknown \"$type\" " + quoted(typeName) + " (null, int, float, double, string or group)");
  return Attribute();
}

// Plain JSON arrays: all strings, all integers, or numbers with at least one
// '.' or exponent (float).
Attribute shorthandArray(const rapidjson::Value& array, const std::string& path, std::string* error) {
  if (array.Empty()) {
    fail(error, path, "an empty array has no type; use the \"$type\" form");
    return Attribute();
  }
  bool strings = true, numbers = true, integers = true;
  for (const auto& v : array.GetArray()) {
    strings = strings && isText(v);
    numbers = numbers && isNumber(v);
    integers = integers && isIntegerLiteral(v);
  }
  std::string why;
  if (strings) {
    std::vector<std::string> values;
    readValues<std::string>(array, readString, &values, &why);
    return StringAttribute(values, 1);
  }
  if (integers) {
    std::vector<int32_t> values;
    if (!readValues<int32_t>(array, readInt, &values, &why)) {
      fail(error, path, why + " (use {\"$type\": \"double\"} for big numbers)");
      return Attribute();
    }
    return IntAttribute(values.data(), values.size(), 1);
  }
  if (numbers) {
    std::vector<float> values;
    if (!readValues<float>(array, readFloat, &values, &why)) {
      fail(error, path, why + " (use {\"$type\": \"double\"})");
      return Attribute();
    }
    return FloatAttribute(values.data(), values.size(), 1);
  }
  fail(error, path, "array elements must be all strings or all numbers");
  return Attribute();
}

}  // namespace

Attribute attributeFromJsonValue(const rapidjson::Value& value, const std::string& path, int depth,
                                 std::string* error) {
  std::string why;
  if (isNumber(value)) {
    if (isIntegerLiteral(value)) {
      int32_t i = 0;
      if (!readInt(value, &i, &why)) {
        fail(error, path, why + " (use {\"$type\": \"double\"} for big numbers)");
        return Attribute();
      }
      return IntAttribute(i);
    }
    float f = 0;
    if (!readFloat(value, &f, &why)) {
      fail(error, path, why + " (use {\"$type\": \"double\"})");
      return Attribute();
    }
    return FloatAttribute(f);
  }
  switch (value.GetType()) {
    case rapidjson::kNullType:
      return NullAttribute();
    case rapidjson::kFalseType:
      return IntAttribute(0);
    case rapidjson::kTrueType:
      return IntAttribute(1);
    case rapidjson::kStringType:
      return StringAttribute(jsonKey(value));
    case rapidjson::kArrayType:
      return shorthandArray(value, path, error);
    case rapidjson::kObjectType:
      if (value.HasMember("$type")) return typedForm(value, path, depth, error);
      return groupFromObject(value, path, depth, true, true, error);
    case rapidjson::kNumberType:  // numbers arrive as marked texts
      break;
  }
  fail(error, path, "unexpected JSON value");
  return Attribute();
}

}  // namespace detail

Attribute attributeFromJsonText(const std::string& json, std::string* error) {
  if (json.size() > detail::kMaxJsonBytes) {
    if (error != nullptr)
      *error = "JSON text is larger than " + std::to_string(detail::kMaxJsonBytes) + " bytes";
    return Attribute();
  }
  rapidjson::Document document;
  if (!detail::parseJson(document, json.data(), json.size(), error)) return Attribute();
  return detail::attributeFromJsonValue(document, "", 0, error);
}

}  // namespace internal
}  // namespace Arbolite3
