// The JSON form of attributes, shared by Op tree files and every tool that
// writes attributes as JSON (docs/optree-format.md has the full mapping):
//   null                      Null
//   "text"                    String, one value
//   7, true/false             Int, one value (booleans become 1 and 0)
//   0.5                       Float, one value (a number with '.' or exponent)
//   ["a", "b"], [1, 2]        String or Int array, tuple size 1
//   [1, 2.5]                  Float array (any element with '.' or exponent)
//   {"name": value, ...}      Group; names are non-empty, without '.', and
//                             must not start with '$'
//   {"$type": "float", "$value": [0, 0, 1], "$tupleSize": 3}
//   {"$type": "group", "$groupInherit": false, "$value": {...}}
// The "$type" form names the type explicitly: null, int, float, double,
// string or group. Float and double values may also be the texts "NaN",
// "Infinity" and "-Infinity". Numbers convert exactly; out-of-range ones are
// errors.
#pragma once

#include <string>

#include "XoAttribute/Attribute.h"

namespace Arbolite3 {
namespace internal {

// Parses one JSON value into an attribute. On failure returns an invalid
// attribute and, when `error` is not null, a one-line reason.
XoAttribute::Attribute attributeFromJsonText(const std::string& json, std::string* error = nullptr);

// The compact JSON text of an attribute; attributeFromJsonText gives back an equal
// attribute (NaNs come back as the canonical quiet NaN). "" for an invalid
// attribute, or one whose strings or names have no JSON form (text that is
// not UTF-8, child names that are empty or contain '.').
std::string attributeToJsonText(const XoAttribute::Attribute& attr);

}  // namespace internal
}  // namespace Arbolite3
