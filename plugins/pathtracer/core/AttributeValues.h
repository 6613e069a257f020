// Reading numbers out of attributes whatever their numeric type, since scene
// files write 1, 1.0 and doubles alike.
#pragma once

#include <string>
#include <vector>

#include "XoAttribute/Attribute.h"

namespace pathtracer {

using Arbolite3::internal::XoAttribute::Attribute;

// All values as doubles; empty for a non-numeric or invalid attribute.
std::vector<double> numbers(const Attribute& attr);
double number(const Attribute& attr, double fallback);
std::string text(const Attribute& attr, const std::string& fallback = std::string());

}  // namespace pathtracer
