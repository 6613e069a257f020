#include "base/FileDescriptor.h"

#include <unistd.h>

namespace Arbolite3 {
namespace Base {

void FileDescriptor::reset(int fd) {
  // Closing the descriptor we already hold would leave `fd` dangling.
  if (fd_ >= 0 && fd_ != fd) ::close(fd_);
  fd_ = fd;
}

}  // namespace Base
}  // namespace Arbolite3
