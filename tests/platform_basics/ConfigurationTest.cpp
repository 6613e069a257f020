#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "KindletTestSupport.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::XoConfiguration::v1::Config;
using testing::HasSubstr;

namespace {

TEST(Configuration, SeededFromTheEnvironmentOfANewProcess) {
  const kindlettest::RunResult r = kindlettest::runWithEnvironment(
      {PLATFORM_PROBE, "get:SELVANE_A", "get:SELVANE_EMPTY", "get:PYTHONHOME", "get:SELVANE_UNKNOWN"},
      {{"SELVANE_A", "one=two"}, {"SELVANE_EMPTY", ""}, {"PYTHONHOME", "/usr"}});
  ASSERT_EQ(r.exitStatus, 0);
  // The value is everything after the first '='; an empty value is present.
  EXPECT_EQ(r.out,
            "SELVANE_A=one=two has=1\n"
            "SELVANE_EMPTY= has=1\n"
            "PYTHONHOME=/usr has=1\n"
            "SELVANE_UNKNOWN= has=0\n");
}

TEST(Configuration, SetStaysInTheStoreAndReseedReadsTheEnvironmentAgain) {
  auto& config = Config();
  EXPECT_EQ(config.get("SELVANE_TEST_NEVER_SET"), "");
  EXPECT_FALSE(config.has("SELVANE_TEST_NEVER_SET"));

  config.set("SELVANE_TEST_KEY", "value");
  EXPECT_TRUE(config.has("SELVANE_TEST_KEY"));
  EXPECT_EQ(config.get("SELVANE_TEST_KEY"), "value");
  EXPECT_EQ(getenv("SELVANE_TEST_KEY"), nullptr);  // the environment is untouched
  config.set("SELVANE_TEST_KEY", "");
  EXPECT_TRUE(config.has("SELVANE_TEST_KEY"));
  config.erase("SELVANE_TEST_KEY");
  EXPECT_FALSE(config.has("SELVANE_TEST_KEY"));

  setenv("SELVANE_TEST_LATE", "late", 1);
  EXPECT_FALSE(config.has("SELVANE_TEST_LATE"));
  config.set("SELVANE_TEST_KEPT", "kept");
  config.reseedFromEnvironment();
  EXPECT_EQ(config.get("SELVANE_TEST_LATE"), "late");
  EXPECT_EQ(config.get("SELVANE_TEST_KEPT"), "kept");  // keys not in the environment stay
  unsetenv("SELVANE_TEST_LATE");
  config.erase("SELVANE_TEST_LATE");
  config.erase("SELVANE_TEST_KEPT");
}

// Writers and readers on shared and own keys at once (run under TSan).
TEST(Configuration, ConcurrentUse) {
  auto& config = Config();
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&config, t] {
      const std::string own = "SELVANE_TEST_THREAD_" + std::to_string(t);
      for (int i = 0; i < 500; ++i) {
        config.set(own, std::to_string(i));
        config.set("SELVANE_TEST_SHARED", own);
        EXPECT_EQ(config.get(own), std::to_string(i));
        EXPECT_THAT(config.get("SELVANE_TEST_SHARED"), HasSubstr("SELVANE_TEST_THREAD_"));
        EXPECT_TRUE(config.has("SELVANE_TEST_SHARED"));
        if (i % 100 == 0) config.reseedFromEnvironment();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 6; ++t) {
    EXPECT_EQ(config.get("SELVANE_TEST_THREAD_" + std::to_string(t)), "499");
    config.erase("SELVANE_TEST_THREAD_" + std::to_string(t));
  }
  config.erase("SELVANE_TEST_SHARED");
}

}  // namespace
