#include "base/ProcessCreationTime.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "base/RetryingIO.h"

namespace Arbolite3 {
namespace Base {

namespace {

void setError(boost::system::error_code* error, int code,
              const boost::system::error_category& category) {
  if (error != nullptr) *error = boost::system::error_code(code, category);
}

int64_t creationTimeFromStat(const std::string& text, boost::system::error_code* error) {
  // Split at every blank and tab without merging: the parenthesised command
  // name is not treated specially, so a name with a blank shifts the later
  // fields. The result is then wrong but stable, which is all that an
  // equality comparison needs.
  std::vector<std::string> fields;
  boost::algorithm::split(fields, text, boost::algorithm::is_any_of(" \t"));
  if (fields.size() < 22) {
    setError(error, boost::system::errc::operation_not_supported,
             boost::system::generic_category());
    return -1;
  }
  const std::string& state = fields[2];
  if (state == "Z" || state == "X" || state == "x") {
    // A zombie is as dead as a missing entry.
    setError(error, boost::system::errc::no_such_process, boost::system::generic_category());
    return -1;
  }
  const long long ticks = std::strtoll(fields[21].c_str(), nullptr, 10);
  return static_cast<int64_t>(ticks) * 1000000 / sysconf(_SC_CLK_TCK);
}

}  // namespace

int64_t getProcessCreationTime(int pid, boost::system::error_code* error) {
  if (error != nullptr) error->clear();

  char path[4096];
  std::snprintf(path, sizeof(path), "/proc/%d/stat", pid);
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) {
      setError(error, boost::system::errc::no_such_process, boost::system::generic_category());
    } else {
      setError(error, errno, boost::system::system_category());
    }
    return -1;
  }

  std::string text;
  char block[4096];
  for (;;) {
    boost::system::error_code readError;
    const ssize_t count = readRetrying(fd, block, sizeof(block), &readError);
    if (count < 0) {
      if (error != nullptr) *error = readError;
      ::close(fd);
      return -1;
    }
    if (count == 0) break;
    text.append(block, static_cast<size_t>(count));
  }
  ::close(fd);
  return creationTimeFromStat(text, error);
}

}  // namespace Base
}  // namespace Arbolite3
