#include "base/DescriptorPairs.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/SystemError.h"

namespace Arbolite3 {
namespace Base {

void createPipe(FileDescriptor& readEnd, FileDescriptor& writeEnd) {
  int fds[2];
  // Close-on-exec from birth: a fork on another thread must never find the
  // ends inheritable, or its child would hold them open across exec.
  if (::pipe2(fds, O_CLOEXEC) != 0) throwErrno();
  readEnd.reset(fds[0]);
  writeEnd.reset(fds[1]);
}

void createSocketPair(FileDescriptor& first, FileDescriptor& second) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) throwErrno();
  first.reset(fds[0]);
  second.reset(fds[1]);
}

}  // namespace Base
}  // namespace Arbolite3
