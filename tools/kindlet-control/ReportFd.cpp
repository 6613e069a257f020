#include "ReportFd.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace KindletControl {

ReportFd::ReportFd(int fd) : fd_(fd) {
  if (fd_ < 0) return;
  // kindlet must not hold the pipe: its end is this program's to report.
  ::fcntl(fd_, F_SETFD, ::fcntl(fd_, F_GETFD) | FD_CLOEXEC);
  // A reader that went away is noticed by poll; a write must not kill this
  // process first. (Children start with every signal at its default.)
  ::signal(SIGPIPE, SIG_IGN);
}

void ReportFd::line(const std::string& text) {
  if (fd_ < 0) return;
  const std::string bytes = text + "\n";
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd_, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    written += static_cast<size_t>(n);
  }
}

bool ReportFd::readerGone() const {
  if (fd_ < 0) return false;
  pollfd entry{fd_, 0, 0};
  return ::poll(&entry, 1, 0) == 1 && (entry.revents & (POLLERR | POLLHUP | POLLNVAL));
}

}  // namespace KindletControl
