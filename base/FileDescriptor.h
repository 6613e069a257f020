// Owning wrapper of a file descriptor: closes what it holds when it is given a
// new one or goes away. -1 means empty.
#pragma once

namespace Arbolite3 {
namespace Base {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { reset(); }

  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  // Closes the descriptor held so far (failures of close are not reported)
  // and takes `fd`.
  void reset(int fd = -1);
  // Gives the descriptor up without closing it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

 private:
  int fd_ = -1;
};

}  // namespace Base
}  // namespace Arbolite3
