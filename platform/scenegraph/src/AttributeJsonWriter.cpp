#include "XoScenegraph/AttributeJson.h"

#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "JsonReading.h"

namespace Arbolite3 {
namespace internal {

using namespace XoAttribute;

namespace {

// Shortest text that reads back as the same value, whatever the C locale,
// always with '.' or an exponent so that a float stays one in shorthand.
template <typename T>
std::string numberText(T value) {
  char buffer[40];
  const std::to_chars_result end = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, end.ptr);
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

template <typename W>
class JsonEmitter {
 public:
  explicit JsonEmitter(W& writer) : w_(writer) {}

  bool emit(const Attribute& attr) {
    switch (attr.getType()) {
      case kTypeNull:
        return w_.Null();
      case kTypeInt: {
        IntAttribute a(attr);
        const std::vector<int32_t> values = a.getValues();
        return data("int", values.size(), a.getTupleSize(), [&] {
          for (int32_t v : values)
            if (!w_.Int(v)) return false;
          return true;
        });
      }
      case kTypeFloat: {
        FloatAttribute a(attr);
        const std::vector<float> values = a.getValues();
        return typed("float", a.getTupleSize(), [&] { return numbers(values); });
      }
      case kTypeDouble: {
        DoubleAttribute a(attr);
        const std::vector<double> values = a.getValues();
        return typed("double", a.getTupleSize(), [&] { return numbers(values); });
      }
      case kTypeString: {
        StringAttribute a(attr);
        const std::vector<std::string> values = a.getValues();
        return data("string", values.size(), a.getTupleSize(), [&] {
          for (const std::string& v : values)
            if (!w_.String(v.data(), static_cast<rapidjson::SizeType>(v.size()))) return false;
          return true;
        });
      }
      case kTypeGroup:
        return group(GroupAttribute(attr));
      default:
        return false;
    }
  }

 private:
  // Plain JSON has no NaN or infinities: they are written as texts.
  template <typename T>
  bool numbers(const std::vector<T>& values) {
    for (T v : values) {
      if (std::isnan(v)) {
        if (!w_.String("NaN")) return false;
      } else if (std::isinf(v)) {
        if (!w_.String(v < 0 ? "-Infinity" : "Infinity")) return false;
      } else {
        const std::string text = numberText(v);
        if (!w_.RawValue(text.data(), text.size(), rapidjson::kNumberType)) return false;
      }
    }
    return true;
  }

  // One value of tuple size 1 is written bare, several as a plain array;
  // anything else in the "$type" form.
  template <typename Values>
  bool data(const char* type, size_t count, size_t tupleSize, Values values) {
    if (tupleSize == 1 && count == 1) return values();
    if (tupleSize == 1 && count > 1) return w_.StartArray() && values() && w_.EndArray();
    return typed(type, tupleSize, values);
  }

  template <typename Values>
  bool typed(const char* type, size_t tupleSize, Values values) {
    if (!(w_.StartObject() && w_.Key("$type") && w_.String(type))) return false;
    if (tupleSize != 1 && !(w_.Key("$tupleSize") && w_.Uint64(tupleSize))) return false;
    return w_.Key("$value") && w_.StartArray() && values() && w_.EndArray() && w_.EndObject();
  }

  bool group(const GroupAttribute& g) {
    // Deeper groups would not read back, and the recursion must stay bounded.
    if (depth_ >= detail::kMaxAttributeDepth) return false;
    const size_t count = g.getNumberOfChildren();
    bool plain = g.getGroupInherit();
    for (size_t i = 0; i < count && plain; ++i) {
      const std::string name = g.getChildName(i);
      plain = name.empty() || name[0] != '$';
    }
    if (!plain) {
      if (!(w_.StartObject() && w_.Key("$type") && w_.String("group"))) return false;
      if (!g.getGroupInherit() && !(w_.Key("$groupInherit") && w_.Bool(false))) return false;
      if (!w_.Key("$value")) return false;
    }
    if (!w_.StartObject()) return false;
    ++depth_;
    for (size_t i = 0; i < count; ++i) {
      const std::string name = g.getChildName(i);
      std::string reason;
      if (!detail::validChildName(name, &reason)) return false;
      if (!w_.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()))) return false;
      if (!emit(g.getChildByIndex(i))) return false;
    }
    --depth_;
    if (!w_.EndObject()) return false;
    return plain || w_.EndObject();
  }

  W& w_;
  int depth_ = 0;
};

}  // namespace

std::string attributeToJsonText(const Attribute& attr) {
  if (!attr.isValid()) return std::string();
  using JsonWriter =
      rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                        rapidjson::CrtAllocator,
                        rapidjson::kWriteValidateEncodingFlag>;
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  JsonEmitter<JsonWriter> emitter(writer);
  if (!emitter.emit(attr)) return std::string();
  return std::string(buffer.GetString(), buffer.GetSize());
}


}  // namespace internal
}  // namespace Arbolite3
