// JSON reading shared by the attribute and Op tree readers: limits, parsing,
// exact number conversion.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include "XoAttribute/Attribute.h"

namespace Arbolite3 {
namespace internal {
namespace detail {

// Bigger inputs are refused before they are read into memory.
constexpr size_t kMaxJsonBytes = size_t(64) << 20;
// Group nesting inside one attribute, and location nesting in a tree. Both
// readers recurse, so the caps also bound their stack use.
constexpr int kMaxAttributeDepth = 64;
constexpr int kMaxLocationDepth = 256;

// The iterative parser does not recurse, so deeply nested input cannot blow
// the stack before our own depth checks see it. Numbers are kept as their
// source text and converted here, exactly (the library's own conversion is
// either inexact or, in full precision, unsafe on extreme exponents).
// Comments are allowed: the files are written by hand.
constexpr unsigned kJsonParseFlags = rapidjson::kParseIterativeFlag |
                                     rapidjson::kParseValidateEncodingFlag |
                                     rapidjson::kParseNumbersAsStringsFlag |
                                     rapidjson::kParseCommentsFlag;

// Parses `size` bytes; on failure returns false with a reason naming the
// offset. Numbers become strings that start with a marker byte.
bool parseJson(rapidjson::Document& document, const char* data, size_t size, std::string* error);

// A JSON number of a parsed document, and its source text.
bool isNumber(const rapidjson::Value& v);
std::string numberText(const rapidjson::Value& v);
// A JSON string (not a number).
bool isText(const rapidjson::Value& v);
// A number without fraction or exponent.
bool isIntegerLiteral(const rapidjson::Value& v);

// Exact conversions; false with a reason when `v` is not a number of that
// kind or its value lies outside the type's range.
bool numberToInt(const rapidjson::Value& v, int32_t* out, std::string* why);
bool numberToUint(const rapidjson::Value& v, uint32_t* out, std::string* why);
bool numberToFloat(const rapidjson::Value& v, float* out, std::string* why);
bool numberToDouble(const rapidjson::Value& v, double* out, std::string* why);

// Child names must survive dotted lookup and the C boundary: non-empty,
// without '.' or NUL.
bool validChildName(const std::string& name, std::string* reason);

// One JSON value to an attribute; `path` is the dotted name used in errors
// ("" for the value itself), `depth` the group nesting so far.
XoAttribute::Attribute attributeFromJsonValue(const rapidjson::Value& value, const std::string& path,
                                              int depth, std::string* error);

}  // namespace detail
}  // namespace internal
}  // namespace Arbolite3
