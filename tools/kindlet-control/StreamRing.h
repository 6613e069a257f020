// A region of shared memory that the registry writes one client's stream
// into, so that its messages cross to the client without a socket; the
// client is woken with a byte down a pipe only when it sleeps. Used as a
// ring: space comes back as the client releases what it has read (the
// release mark in the region's header), and so do the pages behind the mark,
// a few at a time, so a long session keeps resident only about what its
// client has not read yet, not every page its stream has passed through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace KindletControl {

class StreamRing {
 public:
  // A region of `capacity` bytes, header included; nullptr after a reason
  // in `error`.
  static std::unique_ptr<StreamRing> create(size_t capacity, std::string& error);
  ~StreamRing();
  StreamRing(const StreamRing&) = delete;
  StreamRing& operator=(const StreamRing&) = delete;

  // The path the client opens the region by (this process's descriptor).
  const std::string& path() const { return path_; }
  // The path the client opens the doorbell by.
  const std::string& doorbellPath() const { return doorbellPath_; }
  // The ring position the stream starts at when it moves here now.
  uint64_t streamStart();
  // Whether a message of `size` bytes can ever go as a record: one of more
  // than half the ring might find, once everything is released, room neither
  // before the end nor, after the skip to the beginning, in what is left.
  bool canHoldRecord(size_t size) const;
  // Appends `message` as a record, publishes it and wakes the client if it
  // sleeps; false when the ring has no room for it now.
  bool append(const char* message, size_t size);

 private:
  StreamRing(int fd, void* base, size_t capacity, const int doorbell[2]);
  uint64_t* word(size_t offset) const { return reinterpret_cast<uint64_t*>(base + offset); }
  // Whether `size` more bytes from `written` on would overwrite what the
  // client has not released.
  bool full(uint64_t size);
  // Gives the whole pages between `returned` and the release mark back to
  // the system, once they make up a chunk: the client reads none of them
  // again, and the next write there gets fresh zeroed pages.
  void returnReleasedPages();

  int fd;
  int doorbell[2];       // the pipe: the client reads it, the registry writes one byte
  uint64_t released = 0;  // the release mark as last read: read again only when short of room
  unsigned char* base;
  size_t area;           // bytes after the header
  uint64_t written = 0;  // ring positions used so far, skips at the end included (a multiple of 8)
  uint64_t returned = 0;  // the pages before this position are given back
  std::string path_;
  std::string doorbellPath_;
};

}  // namespace KindletControl
