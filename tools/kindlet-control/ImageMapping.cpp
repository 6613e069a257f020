#include "ImageMapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace KindletControl {

std::unique_ptr<ImageMapping> ImageMapping::map(const std::string& path, long pid, uint64_t bytes,
                                                std::string& error) {
  const std::string prefix = "/proc/" + std::to_string(pid) + "/fd/";
  if (path.compare(0, prefix.size(), prefix) != 0 || path.size() == prefix.size() ||
      path.find_first_not_of("0123456789", prefix.size()) != std::string::npos) {
    error = "the image region " + path + " is not a descriptor of process " + std::to_string(pid);
    return nullptr;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = "cannot open the image region " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  struct stat status;
  const int seals = fcntl(fd, F_GET_SEALS);
  if (fstat(fd, &status) != 0 || seals < 0 || !(seals & F_SEAL_SHRINK) ||
      uint64_t(status.st_size) < bytes || bytes == 0) {
    error = "the image region " + path + " is not a sealed memory file of " +
            std::to_string(bytes) + " bytes";
    ::close(fd);
    return nullptr;
  }
  void* base = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  if (base == MAP_FAILED) {
    error = "cannot map the image region " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  return std::unique_ptr<ImageMapping>(
      new ImageMapping(static_cast<const unsigned char*>(base), bytes));
}

ImageMapping::~ImageMapping() { munmap(const_cast<unsigned char*>(base), length); }

}  // namespace KindletControl
