#include "SceneTestSupport.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "XoConfiguration/Configuration.h"

namespace scenetest {
namespace {

std::string& scratch() {
  static std::string dir;
  return dir;
}

class SceneEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    char pattern[] = "/tmp/kindlet-scenegraph-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    scratch() = pattern;
    // The log destination is fixed at the first message; nothing logs before.
    Arbolite3::XoConfiguration::v1::Config().set("SELVANE_LOG_FILE", logFile());
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(scratch(), ignored);
  }
};

const auto* const registered = ::testing::AddGlobalTestEnvironment(new SceneEnvironment);

}  // namespace

std::string scratchDir() { return scratch(); }
std::string logFile() { return scratch() + "/log.txt"; }

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> newLogLines() {
  static size_t seen = 0;
  std::vector<std::string> lines = readLines(logFile());
  std::vector<std::string> fresh(lines.begin() + std::min(seen, lines.size()), lines.end());
  seen = lines.size();
  return fresh;
}

std::string writeFile(const std::string& name, const std::string& content) {
  const std::string path = scratch() + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::string examplePath(const std::string& relative) {
  return std::string(KINDLET_SOURCE_DIR) + "/examples/" + relative;
}

}  // namespace scenetest
