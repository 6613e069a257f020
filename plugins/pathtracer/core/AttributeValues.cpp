#include "AttributeValues.h"

namespace pathtracer {

using namespace Arbolite3::internal::XoAttribute;

namespace {
template <typename Typed>
std::vector<double> widen(const Attribute& attr) {
  const auto values = Typed(attr).getValues();
  return std::vector<double>(values.begin(), values.end());
}
}  // namespace

std::vector<double> numbers(const Attribute& attr) {
  switch (attr.getType()) {
    case kTypeInt: return widen<IntAttribute>(attr);
    case kTypeFloat: return widen<FloatAttribute>(attr);
    case kTypeDouble: return widen<DoubleAttribute>(attr);
    default: return {};
  }
}

double number(const Attribute& attr, double fallback) {
  const std::vector<double> values = numbers(attr);
  return values.empty() ? fallback : values[0];
}

std::string text(const Attribute& attr, const std::string& fallback) {
  const StringAttribute s(attr);
  return s.isValid() && s.getNumberOfValues() > 0 ? s.getValue() : fallback;
}

}  // namespace pathtracer
