// Constants of the binary form; the byte layout is in docs/attribute-binary.md.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {
namespace binary {

constexpr unsigned char kMagic[4] = {'X', 'O', 'A', 'B'};
constexpr uint16_t kVersion = 1;
constexpr size_t kHeaderSize = 8;
// Groups nested deeper than this are refused by the reader and the writer.
constexpr size_t kMaxDepth = 256;
constexpr uint8_t kGroupInheritFlag = 0x01;

}  // namespace binary
}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
