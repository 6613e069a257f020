#include "base/ReplaceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/RetryingIO.h"

namespace Arbolite3 {
namespace Base {

int replaceFile(const std::string& path, const std::string& text, bool sync) {
  // The pid keeps two processes writing the same file off each other's
  // temporary.
  const std::string temporary = path + ".tmp." + std::to_string(::getpid());
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  int error = 0;
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = writeRetrying(fd, text.data() + done, text.size() - done, nullptr);
    if (written <= 0) {
      error = written < 0 ? errno : EIO;
      break;
    }
    done += static_cast<size_t>(written);
  }
  if (error == 0 && sync && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(temporary.c_str());
  return error;
}

}  // namespace Base
}  // namespace Arbolite3
