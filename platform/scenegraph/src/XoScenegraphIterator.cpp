#include "XoScenegraph/XoScenegraphIterator.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <sys/stat.h>

#include "JsonReading.h"
#include "OpTree.h"
#include "XoLoggingHost/XoLoggerGlue.h"

namespace Arbolite3 {
namespace internal {

namespace {

const XoLoggingHost::XoLoggerGlue& logger() {
  static const XoLoggingHost::XoLoggerGlue channel("Arbolite3");
  return channel;
}

// Whole file into `bytes`; false with a reason otherwise.
bool readFile(const std::string& path, std::string* bytes, std::string* reason) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) {
    *reason = errno == ENOENT ? "the file does not exist" : std::strerror(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    *reason = "it is a directory";
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    *reason = "it is not a regular file";
    return false;
  }
  if (static_cast<unsigned long long>(info.st_size) > detail::kMaxJsonBytes) {
    *reason = "it is larger than the limit of " + std::to_string(detail::kMaxJsonBytes) + " bytes";
    return false;
  }
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *reason = std::string("cannot open it: ") + std::strerror(errno);
    return false;
  }
  // Read to the end rather than trusting st_size: the file may be growing.
  bytes->clear();
  std::vector<char> chunk(1 << 16);
  bool ok = true;
  while (true) {
    const size_t n = std::fread(chunk.data(), 1, chunk.size(), file);
    bytes->append(chunk.data(), n);
    if (bytes->size() > detail::kMaxJsonBytes) {
      *reason = "it is larger than the limit of " + std::to_string(detail::kMaxJsonBytes) + " bytes";
      ok = false;
      break;
    }
    if (n < chunk.size()) {
      if (std::ferror(file)) {
        *reason = std::string("cannot read it: ") + std::strerror(errno);
        ok = false;
      }
      break;
    }
  }
  std::fclose(file);
  return ok;
}

}  // namespace

XoScenegraphIterator::XoScenegraphIterator(const XoScenegraphIterator& other) : handle_(other.handle_) {
  XoSgIteratorRetain(handle_);
}

XoScenegraphIterator& XoScenegraphIterator::operator=(const XoScenegraphIterator& other) {
  XoSgIteratorRetain(other.handle_);
  XoSgIteratorRelease(handle_);
  handle_ = other.handle_;
  return *this;
}

XoScenegraphIterator::~XoScenegraphIterator() { XoSgIteratorRelease(handle_); }

XoScenegraphIterator XoScenegraphIterator::adopt(XoSgIteratorStruct* handle) {
  XoScenegraphIterator it;
  it.handle_ = handle;
  return it;
}

XoScenegraphIterator XoScenegraphIterator::fromHandle(XoSgIteratorStruct* handle) {
  XoSgIteratorRetain(handle);
  return adopt(handle);
}

XoScenegraphIterator XoScenegraphIterator::getIteratorFromText(const std::string& text,
                                                               std::string* error) {
  std::shared_ptr<const detail::OpTree> tree = detail::readOpTree(text.data(), text.size(), error);
  if (tree == nullptr) return XoScenegraphIterator();
  const detail::OpTreeLocation* root = tree->root.get();
  return adopt(new XoSgIteratorStruct(std::move(tree), root));
}

XoScenegraphIterator XoScenegraphIterator::getIteratorFromFile(const std::string& path) {
  std::string bytes;
  std::string reason;
  XoScenegraphIterator it;
  if (readFile(path, &bytes, &reason)) it = getIteratorFromText(bytes, &reason);
  if (!it.isValid() && logger().errorEnabled())
    logger().error("Cannot load Op tree file \"" + path + "\": " + reason, __FILE__, __LINE__);
  return it;
}

std::string XoScenegraphIterator::getName() const { return XoSgIteratorGetName(handle_); }

std::string XoScenegraphIterator::getFullName() const { return XoSgIteratorGetFullName(handle_); }

std::string XoScenegraphIterator::getType() const { return XoSgIteratorGetType(handle_); }

XoAttribute::Attribute XoScenegraphIterator::getAttribute(const std::string& nameOrPath) const {
  return XoAttribute::Attribute::fromHandle(XoSgIteratorGetAttribute(handle_, nameOrPath.c_str()));
}

XoAttribute::GroupAttribute XoScenegraphIterator::getAttributes() const {
  if (handle_ == nullptr) return XoAttribute::GroupAttribute();
  return handle_->location->attributes;
}

XoScenegraphIterator XoScenegraphIterator::getFirstChild() const {
  return adopt(XoSgIteratorGetFirstChild(handle_));
}

XoScenegraphIterator XoScenegraphIterator::getNextSibling() const {
  return adopt(XoSgIteratorGetNextSibling(handle_));
}

XoScenegraphIterator XoScenegraphIterator::getChildByName(const std::string& name) const {
  return adopt(XoSgIteratorGetChildByName(handle_, name.c_str()));
}

}  // namespace internal
}  // namespace Arbolite3
