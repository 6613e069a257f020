// Bytes received from a stream ahead of the records that will use them. One
// receive into it usually brings several small records, which are then handed
// on in place: no allocation and no system call per record.
#pragma once

#include <cstddef>
#include <memory>

#include "UTIL/src/Socket.h"

namespace UTIL {
namespace IPC {

class ReadAheadBuffer {
 public:
  // Records up to this size are served from the buffer. Larger ones go
  // straight from the socket into a buffer of their own, so the buffer never
  // adds a copy to bulk transfers.
  static const size_t largestRecord = 65536;
  static const size_t capacity = 2 * largestRecord;

  ReadAheadBuffer() = default;
  ReadAheadBuffer(ReadAheadBuffer&& other) noexcept;
  ReadAheadBuffer& operator=(ReadAheadBuffer&& other) noexcept;

  size_t size() const { return end_ - begin_; }
  bool empty() const { return begin_ == end_; }
  // The unread bytes. For a record of up to largestRecord bytes that starts
  // here, the storage holds the whole record size once space() has been
  // asked for it, even when fewer bytes arrived.
  const Byte* data() const { return storage_.get() + begin_; }

  // Marks `count` unread bytes as used. Their storage stays untouched until
  // the next call of space().
  void consume(size_t count);
  // Forgets the unread bytes, also without touching their storage.
  void clear() { begin_ = end_ = 0; }

  // Free space behind the unread bytes, `length` bytes long (not zero), into
  // which a receive may go; moves the unread bytes to the front first if a
  // record of `recordSize` bytes starting at data() would not fit otherwise.
  // recordSize must not exceed largestRecord and must be more than size().
  Byte* space(size_t recordSize, size_t& length);
  // Streams that carry a large record usually carry another behind the next
  // small one (its header): after one, space() offers only what the next
  // record lacks, so that a large payload stays in the socket for a receive
  // straight into its own buffer.
  void setAfterLargeRecord(bool after) { afterLargeRecord_ = after; }
  // `count` bytes were received into the space.
  void commit(size_t count) { end_ += count; }

  // Appends bytes, e.g. those another reader received ahead.
  void append(const Byte* bytes, size_t count);
  // Copies up to `limit` unread bytes to `out` and consumes them; returns
  // how many.
  size_t take(Byte* out, size_t limit);

 private:
  void allocate();
  void moveToFront();

  std::unique_ptr<Byte[]> storage_;  // `capacity` bytes once first needed
  size_t begin_ = 0;
  size_t end_ = 0;
  bool afterLargeRecord_ = false;
};

}  // namespace IPC
}  // namespace UTIL
