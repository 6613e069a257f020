#include "base/Environment.h"

#include <cstdlib>

namespace Arbolite3 {
namespace Base {

boost::optional<std::string> getEnvironmentVariable(const std::string& name) {
  const char* value = ::getenv(name.c_str());
  if (!value) return boost::none;
  return std::string(value);
}

void setEnvironmentVariable(const std::string& name, const boost::optional<std::string>& value) {
  if (value)
    ::setenv(name.c_str(), value->c_str(), 1);
  else
    ::unsetenv(name.c_str());
}

}  // namespace Base
}  // namespace Arbolite3
