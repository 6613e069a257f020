#include "JsonReading.h"

#include <charconv>
#include <cstring>
#include <system_error>

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

namespace Arbolite3 {
namespace internal {
namespace detail {

namespace {

// Never part of valid UTF-8, so no JSON string can start with it.
constexpr char kNumberMarker = '\xff';

// The parser checks the input bytes, but a \u escape of a lone surrogate
// still decodes to text that is not UTF-8.
bool validUtf8(const char* text, size_t length) {
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  const auto* end = p + length;
  while (p < end) {
    const unsigned char c = *p++;
    if (c < 0x80) continue;
    int more = 0;
    unsigned char low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      more = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      more = 2;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      more = 3;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (end - p < more || *p < low || *p > high) return false;
    for (int i = 1; i < more; ++i)
      if (p[i] < 0x80 || p[i] > 0xBF) return false;
    p += more;
  }
  return true;
}

// Passes every event on to the document, numbers as marked text.
template <typename Handler>
struct NumberMarker {
  Handler& to;
  bool badText = false;
  bool Null() { return to.Null(); }
  bool Bool(bool b) { return to.Bool(b); }
  bool Int(int i) { return to.Int(i); }
  bool Uint(unsigned i) { return to.Uint(i); }
  bool Int64(int64_t i) { return to.Int64(i); }
  bool Uint64(uint64_t i) { return to.Uint64(i); }
  bool Double(double d) { return to.Double(d); }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
    std::string marked(1, kNumberMarker);
    marked.append(text, length);
    return to.String(marked.data(), static_cast<rapidjson::SizeType>(marked.size()), true);
  }
  bool String(const char* text, rapidjson::SizeType length, bool copy) {
    if (!validUtf8(text, length)) {
      badText = true;
      return false;
    }
    return to.String(text, length, copy);
  }
  bool StartObject() { return to.StartObject(); }
  bool Key(const char* text, rapidjson::SizeType length, bool copy) {
    if (!validUtf8(text, length)) {
      badText = true;
      return false;
    }
    return to.Key(text, length, copy);
  }
  bool EndObject(rapidjson::SizeType count) { return to.EndObject(count); }
  bool StartArray() { return to.StartArray(); }
  bool EndArray(rapidjson::SizeType count) { return to.EndArray(count); }
};

struct Generator {
  const char* data;
  size_t size;
  rapidjson::ParseResult* result;
  bool badText = false;
  bool nulByte = false;

  template <typename Handler>
  bool operator()(Handler& document) {
    // The stream ends the text at a NUL, so one is refused before parsing
    // (JSON has no place for it); and only a whole byte-order mark is
    // skipped: the stream's own skipping takes any prefix of one.
    if (const void* nul = std::memchr(data, '\0', size)) {
      *result = rapidjson::ParseResult(rapidjson::kParseErrorValueInvalid,
                                       static_cast<const char*>(nul) - data);
      nulByte = true;
      return false;
    }
    size_t start = 0;
    if (size >= 3 && std::memcmp(data, "\xEF\xBB\xBF", 3) == 0) start = 3;
    rapidjson::MemoryStream input(data + start, size - start);
    NumberMarker<Handler> marker{document};
    rapidjson::Reader reader;
    *result = reader.Parse<kJsonParseFlags>(input, marker);
    if (result->IsError()) *result = rapidjson::ParseResult(result->Code(), result->Offset() + start);
    badText = marker.badText;
    return !result->IsError();
  }
};

bool outOfRange(std::string* why, const char* type) {
  *why = std::string("number outside the ") + type + " range";
  return false;
}

template <typename T>
bool convert(const rapidjson::Value& v, T* out, std::string* why, const char* type) {
  if (!isNumber(v)) {
    *why = "number expected";
    return false;
  }
  const char* begin = v.GetString() + 1;
  const char* end = v.GetString() + v.GetStringLength();
  T value{};
  const std::from_chars_result r = std::from_chars(begin, end, value);
  if (r.ec == std::errc::result_out_of_range) return outOfRange(why, type);
  if (r.ec != std::errc() || r.ptr != end) {
    *why = std::string(type) + " value expected";
    return false;
  }
  *out = value;
  return true;
}

}  // namespace

bool parseJson(rapidjson::Document& document, const char* data, size_t size, std::string* error) {
  rapidjson::ParseResult result;
  Generator generator{data, size, &result};
  document.Populate(generator);
  if (!result.IsError()) return true;
  if (error != nullptr)
    *error = "JSON error at byte " + std::to_string(result.Offset()) + ": " +
             (generator.nulByte   ? "a NUL byte, which JSON text cannot hold"
              : generator.badText ? "a \\u escape gives a lone surrogate, which is not UTF-8"
                                  : rapidjson::GetParseError_En(result.Code()));
  return false;
}

bool isNumber(const rapidjson::Value& v) {
  return v.IsString() && v.GetStringLength() > 1 && v.GetString()[0] == kNumberMarker;
}

std::string numberText(const rapidjson::Value& v) {
  return isNumber(v) ? std::string(v.GetString() + 1, v.GetStringLength() - 1) : std::string();
}

bool isText(const rapidjson::Value& v) { return v.IsString() && !isNumber(v); }

bool isIntegerLiteral(const rapidjson::Value& v) {
  return isNumber(v) && numberText(v).find_first_of(".eE") == std::string::npos;
}

bool numberToInt(const rapidjson::Value& v, int32_t* out, std::string* why) {
  if (isNumber(v) && !isIntegerLiteral(v)) {
    *why = "int value expected";
    return false;
  }
  if (!convert(v, out, why, "32-bit integer")) return false;
  return true;
}

bool numberToUint(const rapidjson::Value& v, uint32_t* out, std::string* why) {
  if (!isIntegerLiteral(v) || numberText(v)[0] == '-') {
    *why = "non-negative integer expected";
    return false;
  }
  return convert(v, out, why, "32-bit integer");
}

bool numberToFloat(const rapidjson::Value& v, float* out, std::string* why) {
  return convert(v, out, why, "float");
}

bool numberToDouble(const rapidjson::Value& v, double* out, std::string* why) {
  return convert(v, out, why, "double");
}

}  // namespace detail
}  // namespace internal
}  // namespace Arbolite3
