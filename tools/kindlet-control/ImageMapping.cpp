#include "ImageMapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace KindletControl {

namespace {

bool isDescriptorOf(const std::string& path, long pid) {
  const std::string prefix = "/proc/" + std::to_string(pid) + "/fd/";
  return path.compare(0, prefix.size(), prefix) == 0 && path.size() > prefix.size() &&
         path.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
}

}  // namespace

std::unique_ptr<ImageMapping> ImageMapping::map(const std::string& path, long pid,
                                                uint64_t slotBytes, bool withHeader,
                                                std::string& error) {
  if (!isDescriptorOf(path, pid)) {
    error = "the image region " + path + " is not a descriptor of process " + std::to_string(pid);
    return nullptr;
  }
  const int fd = ::open(path.c_str(), (withHeader ? O_RDWR : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) {
    error = "cannot open the image region " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  const uint64_t bytes = slotBytes * XoImageOut::kRegionSlots;
  const uint64_t fileBytes = withHeader ? XoImageOut::regionFileBytes(slotBytes) : bytes;
  struct stat status;
  const int seals = fcntl(fd, F_GET_SEALS);
  if (fstat(fd, &status) != 0 || seals < 0 || !(seals & F_SEAL_SHRINK) ||
      uint64_t(status.st_size) < fileBytes || bytes == 0) {
    error = "the image region " + path + " is not a sealed memory file of " +
            std::to_string(fileBytes) + " bytes";
    ::close(fd);
    return nullptr;
  }
  void* base = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
  void* header = nullptr;
  if (base != MAP_FAILED && withHeader) {
    header = mmap(nullptr, XoImageOut::kRegionHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                  off_t(XoImageOut::regionHeaderOffset(slotBytes)));
    if (header == MAP_FAILED) {
      munmap(base, bytes);
      base = MAP_FAILED;
    }
  }
  ::close(fd);
  if (base == MAP_FAILED) {
    error = "cannot map the image region " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  return std::unique_ptr<ImageMapping>(new ImageMapping(
      static_cast<const unsigned char*>(base), bytes, static_cast<XoImageOut::RegionHeader*>(header)));
}

ImageMapping::~ImageMapping() {
  munmap(const_cast<unsigned char*>(base), length);
  if (header_ != nullptr) munmap(header_, XoImageOut::kRegionHeaderBytes);
}

std::unique_ptr<ImageDoorbell> ImageDoorbell::open(const std::string& path, long pid,
                                                   std::string& error) {
  if (!isDescriptorOf(path, pid)) {
    error = "the image doorbell " + path + " is not a descriptor of process " + std::to_string(pid);
    return nullptr;
  }
  // Non-blocking, or opening a pipe's read end would wait for a writer.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) {
    error = "the image doorbell " + path + " is not a pipe" +
            (fd < 0 ? std::string(": ") + std::strerror(errno) : std::string());
    if (fd >= 0) ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<ImageDoorbell>(new ImageDoorbell(fd, path));
}

ImageDoorbell::~ImageDoorbell() { ::close(descriptor); }

void ImageDoorbell::drain() const {
  char bytes[256];
  while (::read(descriptor, bytes, sizeof bytes) > 0) {
  }
}

}  // namespace KindletControl
