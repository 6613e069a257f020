// Access to the process environment. An empty optional means "not set".
#pragma once

#include <string>

#include <boost/optional.hpp>

namespace Arbolite3 {
namespace Base {

boost::optional<std::string> getEnvironmentVariable(const std::string& name);
// With a value: set it, overwriting. Without one: remove the variable. Not
// synchronised: no other thread may read the environment meanwhile.
void setEnvironmentVariable(const std::string& name, const boost::optional<std::string>& value);

}  // namespace Base
}  // namespace Arbolite3
