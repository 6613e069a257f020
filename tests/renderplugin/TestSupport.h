// Shared set-up of the renderer plug-in tests: one discovery per process over
// the shipped plug-ins and the test libraries, a private log file and a
// scratch directory.
#pragma once

#include <string>
#include <vector>

#include "XoAttribute/Attribute.h"

namespace testsupport {

std::string scratchDir();
std::string logFile();
std::vector<std::string> readLines(const std::string& path);
// A group of string children, as kindlet builds the plug-in arguments.
Arbolite3::internal::XoAttribute::GroupAttribute stringGroup(
    const std::vector<std::pair<std::string, std::string>>& children);

}  // namespace testsupport
