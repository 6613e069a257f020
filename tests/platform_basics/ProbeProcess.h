#pragma once

#include <string>
#include <vector>

namespace probe {

struct Result {
  int status = -1;
  std::string out;
  std::vector<std::string> errLines;
};

// Runs the probe with exactly `environment` ("KEY=value" entries) and `args`.
Result run(const std::vector<std::string>& environment, const std::vector<std::string>& args);

std::vector<std::string> readLines(const std::string& path);
std::string scratchFile(const std::string& name);

}  // namespace probe
