#include "base/DescriptorPairs.h"

#include <sys/socket.h>
#include <unistd.h>

#include "base/DescriptorFlags.h"
#include "base/SystemError.h"

namespace Arbolite3 {
namespace Base {

void createPipe(FileDescriptor& readEnd, FileDescriptor& writeEnd) {
  int fds[2];
  if (::pipe(fds) != 0) throwErrno();
  // Held locally so that a failure below closes both ends and leaves the
  // outputs as they were.
  FileDescriptor reader(fds[0]);
  FileDescriptor writer(fds[1]);
  setInheritable(reader.get(), false);
  setInheritable(writer.get(), false);
  readEnd = std::move(reader);
  writeEnd = std::move(writer);
}

void createSocketPair(FileDescriptor& first, FileDescriptor& second) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) throwErrno();
  first.reset(fds[0]);
  second.reset(fds[1]);
}

}  // namespace Base
}  // namespace Arbolite3
