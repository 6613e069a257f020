#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "ProbeProcess.h"
#include "XoLoggingHost/XoLoggerGlue.h"
#include "XoLoggingHost/XoLoggingC.h"

using XoLoggingHost::LogLevel;
using XoLoggingHost::XoLoggerGlue;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::vector<std::string> kAllLines = {
    "[ERROR Probe] first", "[WARNING Probe] second",
    "[INFO Probe] third with [brackets] and  spaces", "[DEBUG Probe] fourth"};

std::vector<std::string> firstLines(size_t n) {
  return std::vector<std::string>(kAllLines.begin(), kAllLines.begin() + n);
}

TEST(Logging, ThresholdKeyDecidesLevelsAndLines) {
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"", 3}, {"debug", 4}, {"warning", 2}, {"error", 1}, {"off", 0}, {"nonsense", 3}};
  for (const auto& c : cases) {
    std::vector<std::string> env;
    if (!c.first.empty()) env.push_back("SELVANE_LOG_LEVEL=" + c.first);
    const probe::Result r = probe::run(env, {"enabled", "log"});
    ASSERT_EQ(r.status, 0) << c.first;
    const size_t n = c.second;
    EXPECT_EQ(r.out, "error=" + std::to_string(n >= 1) + " warn=" + std::to_string(n >= 2) +
                         " info=" + std::to_string(n >= 3) + " debug=" + std::to_string(n >= 4) +
                         "\n")
        << c.first;
    EXPECT_EQ(r.errLines, firstLines(n)) << c.first;
  }
}

TEST(Logging, LogFileIsAppendedAndStderrStaysQuiet) {
  const std::string path = probe::scratchFile("kindlet.log");
  std::ofstream(path) << "earlier line\n";
  const probe::Result r =
      probe::run({"SELVANE_LOG_FILE=" + path, "SELVANE_LOG_LEVEL=debug"}, {"log"});
  ASSERT_EQ(r.status, 0);
  EXPECT_THAT(r.errLines, IsEmpty());
  std::vector<std::string> expected{"earlier line"};
  expected.insert(expected.end(), kAllLines.begin(), kAllLines.end());
  EXPECT_EQ(probe::readLines(path), expected);

  // A file that cannot be opened falls back to standard error.
  const probe::Result fallback =
      probe::run({"SELVANE_LOG_FILE=" + probe::scratchFile("no/such/dir.log")}, {"log"});
  EXPECT_EQ(fallback.errLines, firstLines(3));
}

TEST(Logging, ThresholdCanBeChangedInProcess) {
  const LogLevel saved = XoLoggerGlue::threshold();
  XoLoggerGlue channel("Test");
  XoLoggerGlue::setThreshold(LogLevel::Warning);
  EXPECT_TRUE(channel.warnEnabled());
  EXPECT_FALSE(channel.infoEnabled());
  EXPECT_EQ(XoLoggingGetThreshold(), kXoLogLevelWarning);
  XoLoggerGlue::setThreshold(LogLevel::Off);
  EXPECT_FALSE(channel.errorEnabled());
  XoLoggerGlue::setThreshold(saved);
  EXPECT_EQ(XoLoggerGlue::parseLevel("debug"), LogLevel::Debug);
  EXPECT_EQ(XoLoggerGlue::parseLevel("DEBUG"), LogLevel::Info);  // names are lower case
}

}  // namespace
