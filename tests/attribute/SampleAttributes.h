// A tree with every attribute type and the awkward cases the forms must carry.
#pragma once

#include <cmath>
#include <limits>
#include <string>

#include "XoAttribute/Attribute.h"

namespace sample {

using namespace Arbolite3::internal::XoAttribute;

inline GroupAttribute everyType() {
  const int32_t ints[] = {0, -1, INT32_MAX, INT32_MIN, 7, 8};
  const float floats[] = {0.1f, -0.0f, std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::denorm_min()};
  const double doubles[] = {0.1, 1e300, -std::numeric_limits<double>::quiet_NaN()};
  GroupBuilder b;
  b.set("null", NullAttribute());
  b.set("ints", IntAttribute(ints, 6, 3));
  b.set("floats", FloatAttribute(floats, 4, 2));
  b.set("doubles", DoubleAttribute(doubles, 3, 1));
  b.set("emptyInts", IntAttribute(nullptr, 0, 4));
  b.set("strings", StringAttribute({std::string("nul\0inside", 10), "caf\xC3\xA9 \xE2\x9C\x93",
                                    "<&>\"'\t\n\x01", ""},
                                   2));
  b.set("emptyStrings", StringAttribute(std::vector<std::string>(), 1));
  b.set("nested.deeper.leaf", IntAttribute(42), false);
  b.set("nested.empty", GroupBuilder().build());
  GroupBuilder noInherit;
  noInherit.setGroupInherit(false);
  b.set("nested.noInherit", noInherit.build());
  return b.build();
}

}  // namespace sample
