// Any bytes: the reader must not crash or read outside them; whatever it
// accepts must write back to bytes that read to an equal attribute.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "XoAttribute/Attribute.h"

using Arbolite3::internal::XoAttribute::Attribute;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Attribute attr = Attribute::parseBinary(data, size);
  if (!attr.isValid()) return 0;
  std::string bytes = attr.getBinary();
  // The form has exactly one encoding per value.
  if (bytes.size() != size || std::memcmp(bytes.data(), data, size) != 0) std::abort();
  Attribute again = Attribute::parseBinary(bytes.data(), bytes.size());
  if (!again.isValid() || !(again == attr)) std::abort();
  std::string xml = attr.getXML();
  if (xml.empty() || xml != again.getXML()) std::abort();
  return 0;
}
