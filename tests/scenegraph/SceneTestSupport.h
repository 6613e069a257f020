#pragma once

#include <string>
#include <vector>

namespace scenetest {

// A scratch directory for this test binary, removed at the end.
std::string scratchDir();
// Every log line of the binary goes here.
std::string logFile();
std::vector<std::string> readLines(const std::string& path);
// Log lines written since the previous call.
std::vector<std::string> newLogLines();
std::string writeFile(const std::string& name, const std::string& content);
std::string examplePath(const std::string& relative);

}  // namespace scenetest
