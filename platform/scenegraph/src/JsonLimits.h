// Limits and parse options shared by the attribute and Op tree readers.
#pragma once

#include <cstddef>
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
// the stack before our own depth checks see it. Full precision makes numbers
// read back exactly as written. Comments are allowed: the files are written
// by hand.
constexpr unsigned kJsonParseFlags = rapidjson::kParseIterativeFlag |
                                     rapidjson::kParseFullPrecisionFlag |
                                     rapidjson::kParseValidateEncodingFlag |
                                     rapidjson::kParseNanAndInfFlag |
                                     rapidjson::kParseCommentsFlag;

// Parses `size` bytes; on failure returns false with a reason naming the
// offset.
bool parseJson(rapidjson::Document& document, const char* data, size_t size, std::string* error);

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
