// Little-endian integers in the protocol's messages.
#pragma once

#include <cstdint>

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

inline void writeLittleEndian(char* out, uint64_t value, int count) {
  for (int i = 0; i < count; ++i, value >>= 8) out[i] = static_cast<char>(value & 0xff);
}

inline uint64_t readLittleEndian(const unsigned char* bytes, int count) {
  uint64_t value = 0;
  for (int i = count; i-- > 0;) value = value << 8 | bytes[i];
  return value;
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
