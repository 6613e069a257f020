#include "base/ExecutablePath.h"

#include <stdexcept>

#include <boost/filesystem.hpp>

namespace Arbolite3 {
namespace Base {

std::string getExecutablePath() {
  try {
    return boost::filesystem::canonical("/proc/self/exe", boost::filesystem::current_path())
        .string();
  } catch (const boost::filesystem::filesystem_error&) {
    throw std::runtime_error("Unable to retrieve executable path");
  }
}

std::string getExecutableName() {
  return boost::filesystem::path(getExecutablePath()).filename().string();
}

}  // namespace Base
}  // namespace Arbolite3
