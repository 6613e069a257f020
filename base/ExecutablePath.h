// Identity of the running executable, with every symbolic link resolved.
#pragma once

#include <string>

namespace Arbolite3 {
namespace Base {

// Canonical path of /proc/self/exe. Throws std::runtime_error
// "Unable to retrieve executable path" when it can't be resolved.
std::string getExecutablePath();
// File name part of getExecutablePath(); throws the same.
std::string getExecutableName();

}  // namespace Base
}  // namespace Arbolite3
