// Hand-made binary attribute blobs for the reader tests.
#pragma once

#include <cstdint>
#include <string>

class BlobWriter {
 public:
  // Starts with a valid header unless told otherwise.
  explicit BlobWriter(bool header = true) {
    if (header) raw("XOAB").u16(1).u16(0);
  }
  BlobWriter& u8(uint8_t v) {
    bytes_ += static_cast<char>(v);
    return *this;
  }
  BlobWriter& u16(uint16_t v) { return u8(v & 0xFF).u8(v >> 8); }
  BlobWriter& u32(uint32_t v) { return u16(v & 0xFFFF).u16(v >> 16); }
  BlobWriter& u64(uint64_t v) { return u32(static_cast<uint32_t>(v)).u32(static_cast<uint32_t>(v >> 32)); }
  BlobWriter& raw(const std::string& s) {
    bytes_ += s;
    return *this;
  }
  BlobWriter& text(const std::string& s) { return u32(static_cast<uint32_t>(s.size())).raw(s); }

  // Node headers.
  BlobWriter& null() { return u8(0); }
  BlobWriter& ints(std::initializer_list<int32_t> values, uint32_t tuple = 1) {
    u8(1).u32(tuple).u64(values.size());
    for (int32_t v : values) u32(static_cast<uint32_t>(v));
    return *this;
  }
  BlobWriter& group(uint32_t children, bool inherit = true) { return u8(5).u8(inherit ? 1 : 0).u32(children); }

  const std::string& str() const { return bytes_; }

 private:
  std::string bytes_;
};
