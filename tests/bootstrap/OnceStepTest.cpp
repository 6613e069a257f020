// The guard shared by the bootstrap steps, and the small steps themselves.
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "UTIL/src/SelvaneBootstrap.h"

namespace {

// Starts `count` threads that all call `work` as close together as possible.
template <typename Work>
void runTogether(int count, Work work) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < count) std::this_thread::yield();
      work(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(OnceStep, RunsOnceUnderContentionAndCallersSeeItDone) {
  boost::once_flag flag = BOOST_ONCE_INIT;
  std::atomic<int> runs{0};
  std::atomic<bool> done{false};
  std::atomic<int> returnedEarly{0};
  runTogether(8, [&](int) {
    runBootstrapStep(flag, [&] {
      runs.fetch_add(1);
      // Keep the region open long enough for the others to queue up on it.
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      done.store(true);
    });
    if (!done.load()) returnedEarly.fetch_add(1);
  });
  EXPECT_EQ(runs.load(), 1);
  EXPECT_EQ(returnedEarly.load(), 0);

  runBootstrapStep(flag, [&] { runs.fetch_add(1); });
  EXPECT_EQ(runs.load(), 1);
}

TEST(OnceStep, WaiterTakesOverAfterThrowingBody) {
  boost::once_flag flag = BOOST_ONCE_INIT;
  std::atomic<int> runs{0};
  std::atomic<int> thrown{0};
  std::atomic<bool> done{false};
  std::atomic<int> returnedEarly{0};
  runTogether(6, [&](int) {
    try {
      runBootstrapStep(flag, [&] {
        const int attempt = runs.fetch_add(1) + 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (attempt == 1) throw std::runtime_error("first attempt fails");
        done.store(true);
      });
      if (!done.load()) returnedEarly.fetch_add(1);
    } catch (const std::runtime_error&) {
      thrown.fetch_add(1);
    }
  });
  EXPECT_EQ(runs.load(), 2);
  EXPECT_EQ(thrown.load(), 1);
  EXPECT_EQ(returnedEarly.load(), 0);
}

TEST(PathLocale, NarrowPathsAreUtf8WhateverTheLocale) {
  bootstrapPathLocale();
  bootstrapPathLocale();
  const boost::filesystem::path wide(L"caf\u00e9/\u65e5");
  EXPECT_EQ(wide.string(), "caf\xc3\xa9/\xe6\x97\xa5");
  const boost::filesystem::path narrow("\xc3\xa9t\xc3\xa9");
  EXPECT_EQ(narrow.wstring(), L"\u00e9t\u00e9");
}

TEST(ScopedFontConfigFile, RestoresOnlyANonEmptyPreviousValue) {
  const std::string installed = "/opt/k/bin/python/UI4/Resources/Fonts/fonts.conf";

  setenv("FONTCONFIG_FILE", "/etc/fonts/mine.conf", 1);
  {
    ScopedFontConfigFile scope("/opt/k");
    EXPECT_EQ(std::string(getenv("FONTCONFIG_FILE")), installed);
  }
  EXPECT_EQ(std::string(getenv("FONTCONFIG_FILE")), "/etc/fonts/mine.conf");

  // Unset and empty are both left pointing at the installation.
  unsetenv("FONTCONFIG_FILE");
  { ScopedFontConfigFile scope("/opt/k"); }
  ASSERT_NE(getenv("FONTCONFIG_FILE"), nullptr);
  EXPECT_EQ(std::string(getenv("FONTCONFIG_FILE")), installed);

  setenv("FONTCONFIG_FILE", "", 1);
  { ScopedFontConfigFile scope("/opt/k"); }
  EXPECT_EQ(std::string(getenv("FONTCONFIG_FILE")), installed);
  unsetenv("FONTCONFIG_FILE");
}

}  // namespace
