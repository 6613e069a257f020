#include "base/WakeEvent.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "base/RetryingIO.h"
#include "base/SystemError.h"

namespace Arbolite3 {
namespace Base {

// glibc's eventfd() is the eventfd2 system call.
WakeEvent::WakeEvent() : fd_(::eventfd(0, EFD_CLOEXEC)) {
  if (fd_ < 0) throwErrno();
}

WakeEvent::~WakeEvent() { ::close(fd_); }

void WakeEvent::signal() {
  const uint64_t one = 1;
  if (writeRetrying(fd_, &one, sizeof one, nullptr) < 0) throwErrno();
}

void WakeEvent::wait() {
  uint64_t count = 0;
  if (readRetrying(fd_, &count, sizeof count, nullptr) < 0) throwErrno();
}

}  // namespace Base
}  // namespace Arbolite3
