// One pass over the buffer, without recursion. Every count is checked against
// the bytes that remain before anything is allocated for it, so a short
// buffer cannot make the reader reserve more than the buffer could hold.
#include <cstring>
#include <type_traits>

#include "AttributeBinaryFormat.h"
#include "AttributeNode.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

namespace {

// Smallest encoding of one string value, and of one group child (length,
// a one-byte name, a type byte).
constexpr size_t kMinStringBytes = 4;
constexpr size_t kMinChildBytes = 4 + 1 + 1;

class Reader {
 public:
  Reader(const unsigned char* begin, size_t length) : p_(begin), end_(begin + length) {}

  size_t remaining() const { return static_cast<size_t>(end_ - p_); }
  bool atEnd() const { return p_ == end_; }

  // Bytes that the children of open groups, not yet started, need at least.
  // Counts are checked against what is left after them, so that nested
  // groups cannot each claim the whole rest of the buffer and together
  // reserve many times its size.
  // A child that ate into the promised bytes leaves nothing available, so the
  // next count check fails, as it should for such input.
  size_t available() const { return remaining() > promised_ ? remaining() - promised_ : 0; }
  void promise(size_t n) { promised_ += n; }
  void unpromise(size_t n) { promised_ -= n; }

  bool u8(uint8_t* v) {
    if (remaining() < 1) return false;
    *v = *p_++;
    return true;
  }
  bool u16(uint16_t* v) {
    if (remaining() < 2) return false;
    *v = static_cast<uint16_t>(p_[0] | (p_[1] << 8));
    p_ += 2;
    return true;
  }
  bool u32(uint32_t* v) {
    if (remaining() < 4) return false;
    *v = static_cast<uint32_t>(p_[0]) | (static_cast<uint32_t>(p_[1]) << 8) |
         (static_cast<uint32_t>(p_[2]) << 16) | (static_cast<uint32_t>(p_[3]) << 24);
    p_ += 4;
    return true;
  }
  bool u64(uint64_t* v) {
    if (remaining() < 8) return false;
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = (value << 8) | p_[i];
    *v = value;
    p_ += 8;
    return true;
  }
  // A pointer to the next n bytes, consumed.
  const char* bytes(size_t n) {
    if (remaining() < n) return nullptr;
    const char* at = reinterpret_cast<const char*>(p_);
    p_ += n;
    return at;
  }

 private:
  const unsigned char* p_;
  const unsigned char* end_;
  size_t promised_ = 0;
};

// Tuple size and value count, with the count proven to fit in the rest of
// the buffer at minBytes per value.
bool readShape(Reader& in, size_t minBytes, size_t* tupleSize, size_t* count) {
  uint32_t tuple;
  uint64_t n;
  if (!in.u32(&tuple) || !in.u64(&n)) return false;
  if (tuple == 0 || n % tuple != 0) return false;
  if (n > in.available() / minBytes) return false;
  *tupleSize = tuple;
  *count = static_cast<size_t>(n);
  return true;
}

template <typename T>
const Node* readNumbers(Reader& in) {
  size_t tupleSize, count;
  if (!readShape(in, sizeof(T), &tupleSize, &count)) return nullptr;
  const char* raw = in.bytes(count * sizeof(T));
  if (raw == nullptr) return nullptr;
  std::vector<T> values(count);
  if (count != 0) {
    if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) {
      std::memcpy(values.data(), raw, count * sizeof(T));
    } else {
      using Bits = typename std::conditional<sizeof(T) == 8, uint64_t, uint32_t>::type;
      for (size_t i = 0; i < count; ++i) {
        Bits bits = 0;
        for (size_t b = 0; b < sizeof(T); ++b) {
          bits |= static_cast<Bits>(static_cast<unsigned char>(raw[i * sizeof(T) + b])) << (8 * b);
        }
        std::memcpy(&values[i], &bits, sizeof(T));
      }
    }
  }
  return new DataNode<T>(std::move(values), tupleSize);
}

const Node* readStrings(Reader& in) {
  size_t tupleSize, count;
  if (!readShape(in, kMinStringBytes, &tupleSize, &count)) return nullptr;
  std::vector<std::string> values;
  values.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    uint32_t length;
    if (!in.u32(&length)) return nullptr;
    const char* text = in.bytes(length);
    if (text == nullptr) return nullptr;
    values.emplace_back(text, length);
  }
  return new StringNode(std::move(values), tupleSize);
}

bool readName(Reader& in, std::string* name) {
  uint32_t length;
  if (!in.u32(&length)) return false;
  const char* text = in.bytes(length);
  if (text == nullptr || !isValidChildName(text, length)) return false;
  name->assign(text, length);
  return true;
}

struct Frame {
  std::vector<GroupChild> children;
  size_t remaining;
  bool groupInherit;
  std::string pendingName;
};

}  // namespace

const Node* parseBinaryNode(const void* data, size_t length) {
  if (data == nullptr || length < binary::kHeaderSize) return nullptr;
  Reader in(static_cast<const unsigned char*>(data), length);
  const char* magic = in.bytes(sizeof(binary::kMagic));
  uint16_t version, reserved;
  if (std::memcmp(magic, binary::kMagic, sizeof(binary::kMagic)) != 0) return nullptr;
  if (!in.u16(&version) || version != binary::kVersion) return nullptr;
  if (!in.u16(&reserved) || reserved != 0) return nullptr;

  std::vector<Frame> stack;
  while (true) {
    uint8_t type;
    if (!in.u8(&type)) return nullptr;
    NodePtr node;
    switch (type) {
      case kXoAttributeTypeNull:
        node = NodePtr::adopt(new NullNode());
        break;
      case kXoAttributeTypeInt:
        node = NodePtr::adopt(readNumbers<int32_t>(in));
        break;
      case kXoAttributeTypeFloat:
        node = NodePtr::adopt(readNumbers<float>(in));
        break;
      case kXoAttributeTypeDouble:
        node = NodePtr::adopt(readNumbers<double>(in));
        break;
      case kXoAttributeTypeString:
        node = NodePtr::adopt(readStrings(in));
        break;
      case kXoAttributeTypeGroup: {
        uint8_t flags;
        uint32_t count;
        if (!in.u8(&flags) || (flags & ~binary::kGroupInheritFlag) != 0) return nullptr;
        if (!in.u32(&count) || count > in.available() / kMinChildBytes) return nullptr;
        if (stack.size() + 1 > binary::kMaxDepth) return nullptr;
        bool inherit = (flags & binary::kGroupInheritFlag) != 0;
        if (count == 0) {
          node = NodePtr::adopt(GroupNode::create({}, inherit));
          break;
        }
        stack.push_back(Frame{{}, count, inherit, {}});
        in.promise((count - 1) * kMinChildBytes);
        stack.back().children.reserve(count);
        if (!readName(in, &stack.back().pendingName)) return nullptr;
        continue;
      }
      default:
        return nullptr;
    }
    if (!node) return nullptr;

    // Hand the finished node to its group; close every group it completes.
    while (!stack.empty()) {
      Frame& frame = stack.back();
      frame.children.push_back(GroupChild{std::move(frame.pendingName), std::move(node)});
      if (--frame.remaining != 0) break;
      node = NodePtr::adopt(GroupNode::create(std::move(frame.children), frame.groupInherit));
      stack.pop_back();
      if (!node) return nullptr;  // duplicate child names
    }
    if (stack.empty()) return in.atEnd() ? node.release() : nullptr;
    in.unpromise(kMinChildBytes);
    if (!readName(in, &stack.back().pendingName)) return nullptr;
  }
}

}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
