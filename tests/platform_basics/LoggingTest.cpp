#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "KindletTestSupport.h"

using testing::ElementsAre;

namespace {

// The probe logs a line at each level to its configured destination.
kindlettest::RunResult probe(const std::map<std::string, std::string>& environment,
                             const std::vector<std::string>& args) {
  std::vector<std::string> argv{PLATFORM_PROBE};
  argv.insert(argv.end(), args.begin(), args.end());
  return kindlettest::runWithEnvironment(argv, environment);
}

const std::vector<std::string> kAllLines = {
    "[ERROR Probe] first", "[WARNING Probe] second",
    "[INFO Probe] third with [brackets] and  spaces", "[DEBUG Probe] fourth"};

std::vector<std::string> firstLines(size_t n) {
  return std::vector<std::string>(kAllLines.begin(), kAllLines.begin() + n);
}

TEST(Logging, ThresholdKeyDecidesLevelsAndLines) {
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"", 3}, {"debug", 4}, {"warning", 2}, {"error", 1}, {"off", 0}, {"nonsense", 3},
      {"DEBUG", 3}};  // names are lower case
  for (const auto& c : cases) {
    std::map<std::string, std::string> env;
    if (!c.first.empty()) env["SELVANE_LOG_LEVEL"] = c.first;
    const kindlettest::RunResult r = probe(env, {"enabled", "log"});
    ASSERT_EQ(r.exitStatus, 0) << c.first;
    const size_t n = c.second;
    EXPECT_EQ(r.out, "error=" + std::to_string(n >= 1) + " warn=" + std::to_string(n >= 2) +
                         " info=" + std::to_string(n >= 3) + " debug=" + std::to_string(n >= 4) +
                         "\n")
        << c.first;
    EXPECT_EQ(kindlettest::splitLines(r.err), firstLines(n)) << c.first;
  }
}

TEST(Logging, LogFileIsAppendedAndStderrStaysQuiet) {
  const std::string path = kindlettest::scratch().write("kindlet.log", "earlier line\n");
  const kindlettest::RunResult r =
      probe({{"SELVANE_LOG_FILE", path}, {"SELVANE_LOG_LEVEL", "debug"}}, {"log"});
  ASSERT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "");
  std::vector<std::string> expected{"earlier line"};
  expected.insert(expected.end(), kAllLines.begin(), kAllLines.end());
  EXPECT_EQ(kindlettest::readLines(path), expected);

  // A file that cannot be opened falls back to standard error.
  const kindlettest::RunResult fallback =
      probe({{"SELVANE_LOG_FILE", kindlettest::scratch().file("no/such/dir.log")}}, {"log"});
  EXPECT_EQ(kindlettest::splitLines(fallback.err), firstLines(3));
}

}  // namespace
