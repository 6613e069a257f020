#include "TestSupport.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"

namespace testsupport {
namespace {

std::string& scratch() {
  static std::string dir;
  return dir;
}

class PluginEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    char pattern[] = "/tmp/kindlet-renderplugin-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    scratch() = pattern;
    auto& config = Arbolite3::XoConfiguration::v1::Config();
    // Discovery reads these once; the log destination is chosen at the first
    // message, which discovery writes.
    config.erase("SELVANE_ROOT");
    config.set("SELVANE_RENDERER_PLUGIN_PATH",
               std::string(SHIPPED_PLUGIN_DIR) + ":" + TEST_PLUGIN_DIR + "::/nonexistent/dir");
    config.set("SELVANE_LOG_FILE", logFile());
    // The discovery test reads the error lines, whatever the caller's level.
    config.set("SELVANE_LOG_LEVEL", "info");
    XoLoggingHost::XoLoggerGlue::reloadThreshold();
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(scratch(), ignored);
  }
};

const auto* const registered = ::testing::AddGlobalTestEnvironment(new PluginEnvironment);

}  // namespace

std::string scratchDir() { return scratch(); }
std::string logFile() { return scratch() + "/log.txt"; }

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Arbolite3::internal::XoAttribute::GroupAttribute stringGroup(
    const std::vector<std::pair<std::string, std::string>>& children) {
  Arbolite3::internal::XoAttribute::GroupBuilder builder;
  for (const auto& child : children)
    builder.set(child.first, Arbolite3::internal::XoAttribute::StringAttribute(child.second));
  return builder.build();
}

}  // namespace testsupport
