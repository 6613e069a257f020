// read/recv/write/send that hide interruption by signals: they repeat the call
// while it fails with EINTR. Every other outcome, short transfers included, is
// returned as the system call gave it. On failure the result is -1 and errno
// is stored in `*error` (system category) when `error` is given; `error` is
// cleared on entry.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include <boost/system/error_code.hpp>

namespace Arbolite3 {
namespace Base {

ssize_t readRetrying(int fd, void* buffer, size_t size, boost::system::error_code* error);
ssize_t recvRetrying(int fd, void* buffer, size_t size, int flags,
                     boost::system::error_code* error);
ssize_t writeRetrying(int fd, const void* buffer, size_t size, boost::system::error_code* error);
ssize_t sendRetrying(int fd, const void* buffer, size_t size, int flags,
                     boost::system::error_code* error);

}  // namespace Base
}  // namespace Arbolite3
