#include "UTIL/src/ReadAheadBuffer.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

namespace UTIL {
namespace IPC {

const size_t ReadAheadBuffer::largestRecord;
const size_t ReadAheadBuffer::capacity;

ReadAheadBuffer::ReadAheadBuffer(ReadAheadBuffer&& other) noexcept
    : storage_(std::move(other.storage_)),
      begin_(other.begin_),
      end_(other.end_),
      afterLargeRecord_(other.afterLargeRecord_) {
  other.clear();
}

ReadAheadBuffer& ReadAheadBuffer::operator=(ReadAheadBuffer&& other) noexcept {
  storage_ = std::move(other.storage_);
  begin_ = other.begin_;
  end_ = other.end_;
  afterLargeRecord_ = other.afterLargeRecord_;
  other.clear();
  return *this;
}

void ReadAheadBuffer::allocate() {
  if (!storage_) storage_.reset(new Byte[capacity]);
}

void ReadAheadBuffer::moveToFront() {
  std::memmove(storage_.get(), storage_.get() + begin_, size());
  end_ -= begin_;
  begin_ = 0;
}

void ReadAheadBuffer::consume(size_t count) {
  assert(count <= size());
  begin_ += count;
  // Back to the front whenever it's free: no move needed later.
  if (begin_ == end_) clear();
}

Byte* ReadAheadBuffer::space(size_t recordSize, size_t& length) {
  assert(recordSize <= largestRecord);
  allocate();
  if (begin_ + std::max(recordSize, size() + 1) > capacity) moveToFront();
  // A single receive moves at most largestRecord bytes.
  length = std::min(capacity - end_, afterLargeRecord_ ? recordSize - size() : largestRecord);
  return storage_.get() + end_;
}

void ReadAheadBuffer::append(const Byte* bytes, size_t count) {
  if (count == 0) return;
  allocate();
  if (capacity - end_ < count) moveToFront();
  assert(capacity - end_ >= count);
  std::memcpy(storage_.get() + end_, bytes, count);
  end_ += count;
}

size_t ReadAheadBuffer::take(Byte* out, size_t limit) {
  const size_t count = std::min(limit, size());
  if (count > 0) std::memcpy(out, data(), count);
  consume(count);
  return count;
}

}  // namespace IPC
}  // namespace UTIL
