#include "base/DescriptorFlags.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "base/SystemError.h"

namespace Arbolite3 {
namespace Base {

bool isSocket(int fd) {
  struct stat info;
  return ::fstat(fd, &info) == 0 && S_ISSOCK(info.st_mode);
}

void setNonBlocking(int fd, bool on) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) throwErrno();
  const int wanted = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (wanted != flags && ::fcntl(fd, F_SETFL, wanted) < 0) throwErrno();
}

void setInheritable(int fd, bool on) {
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) throwErrno();
  const int wanted = on ? (flags & ~FD_CLOEXEC) : (flags | FD_CLOEXEC);
  if (wanted != flags && ::fcntl(fd, F_SETFD, wanted) < 0) throwErrno();
}

}  // namespace Base
}  // namespace Arbolite3
