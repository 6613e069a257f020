#include "base/RetryingIO.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "base/SystemError.h"

namespace Arbolite3 {
namespace Base {

namespace {

template <typename Call>
ssize_t retrying(boost::system::error_code* error, Call call) {
  clearError(error);
  ssize_t result;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  if (result < 0) storeErrno(error);
  return result;
}

}  // namespace

ssize_t readRetrying(int fd, void* buffer, size_t size, boost::system::error_code* error) {
  return retrying(error, [&] { return ::read(fd, buffer, size); });
}

ssize_t recvRetrying(int fd, void* buffer, size_t size, int flags,
                     boost::system::error_code* error) {
  return retrying(error, [&] { return ::recv(fd, buffer, size, flags); });
}

ssize_t writeRetrying(int fd, const void* buffer, size_t size, boost::system::error_code* error) {
  return retrying(error, [&] { return ::write(fd, buffer, size); });
}

ssize_t sendRetrying(int fd, const void* buffer, size_t size, int flags,
                     boost::system::error_code* error) {
  return retrying(error, [&] { return ::send(fd, buffer, size, flags); });
}

}  // namespace Base
}  // namespace Arbolite3
