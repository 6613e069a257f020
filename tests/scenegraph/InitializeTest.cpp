#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "KindletTestSupport.h"
#include "XoConfiguration/Configuration.h"
#include "XoScenegraph/XoArbolite3.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Every log line of this program goes to a scratch file, set before anything logs.
const std::string logPath = kindlettest::logToScratch();

auto& config() { return Arbolite3::XoConfiguration::v1::Config(); }

std::string makeDir(const std::string& relative) {
  const std::string path = kindlettest::scratch().path() + "/" + relative;
  std::filesystem::create_directories(path);
  return path;
}

class Initialize : public testing::Test {
 protected:
  void SetUp() override {
    reset();
    kindlettest::newLogLines();
  }
  void TearDown() override { reset(); }
  static void reset() {
    XoArbolite3Uninitialize();
    config().erase("SELVANE_ROOT");
    config().erase("SELVANE_RENDERER_PLUGIN_PATH");
  }
};

TEST_F(Initialize, SecondStageNeedsTheFirst) {
  EXPECT_NE(XoArbolite3Initialize(0), 0);
  EXPECT_THAT(kindlettest::newLogLines(),
              ElementsAre(AllOf(HasSubstr("[ERROR Arbolite3] "), HasSubstr("before"))));
  EXPECT_EQ(XoArbolite3InitializeMinimally(0), 0);
  EXPECT_EQ(XoArbolite3Initialize(0), 0);  // no directories configured
  EXPECT_THAT(kindlettest::newLogLines(), IsEmpty());
}

TEST_F(Initialize, ScansTheRootAndTheListedDirectories) {
  config().set("SELVANE_ROOT", makeDir("goodroot"));
  makeDir("goodroot/plugins/Libs");
  config().set("SELVANE_RENDERER_PLUGIN_PATH", makeDir("one") + "::" + makeDir("two") + ":");
  ASSERT_EQ(XoArbolite3InitializeMinimally(0), 0);
  EXPECT_EQ(XoArbolite3Initialize(0), 0);
  EXPECT_THAT(kindlettest::newLogLines(), IsEmpty());
}

TEST_F(Initialize, FailsOnADirectoryThatCannotBeScanned) {
  const std::string missing = kindlettest::scratch().path() + "/missing";
  config().set("SELVANE_RENDERER_PLUGIN_PATH", makeDir("fine") + ":" + missing);
  ASSERT_EQ(XoArbolite3InitializeMinimally(0), 0);
  EXPECT_NE(XoArbolite3Initialize(0), 0);
  EXPECT_THAT(kindlettest::newLogLines(),
              ElementsAre(AllOf(HasSubstr("[ERROR Arbolite3] Cannot scan plug-in directory \"" +
                                          missing + "\""),
                                HasSubstr("does not exist"))));

  // A plain file in the list, and a root without plugins/Libs, fail the same way.
  config().set("SELVANE_RENDERER_PLUGIN_PATH", kindlettest::scratch().write("plain", "x"));
  EXPECT_NE(XoArbolite3Initialize(0), 0);
  EXPECT_THAT(kindlettest::newLogLines(), ElementsAre(HasSubstr("Not a directory")));
  config().erase("SELVANE_RENDERER_PLUGIN_PATH");
  config().set("SELVANE_ROOT", makeDir("emptyroot"));
  EXPECT_NE(XoArbolite3Initialize(0), 0);
  EXPECT_THAT(kindlettest::newLogLines(), ElementsAre(HasSubstr("emptyroot/plugins/Libs")));

  // Once the directory is there, the same call succeeds.
  makeDir("emptyroot/plugins/Libs");
  EXPECT_EQ(XoArbolite3Initialize(0), 0);
}

std::vector<int>* g_calls = nullptr;
void record(void* arg) { g_calls->push_back(static_cast<int>(reinterpret_cast<intptr_t>(arg))); }
void registerAnother(void*) { XoArbolite3AddUninitializeHook(record, reinterpret_cast<void*>(99)); }

TEST_F(Initialize, UninitializeRunsHooksNewestFirstOnce) {
  std::vector<int> calls;
  g_calls = &calls;
  ASSERT_EQ(XoArbolite3InitializeMinimally(0), 0);
  for (intptr_t i = 1; i <= 3; ++i) XoArbolite3AddUninitializeHook(record, reinterpret_cast<void*>(i));
  XoArbolite3AddUninitializeHook(registerAnother, nullptr);
  XoArbolite3Uninitialize();
  EXPECT_THAT(calls, ElementsAre(3, 2, 1));
  XoArbolite3Uninitialize();  // the hook added while the hooks ran waits for this one
  EXPECT_THAT(calls, ElementsAre(3, 2, 1, 99));
  g_calls = nullptr;
}

std::atomic<int> g_hookRuns{0};
void countRun(void*) { g_hookRuns.fetch_add(1); }

TEST_F(Initialize, ConcurrentCallersAgree) {
  config().set("SELVANE_RENDERER_PLUGIN_PATH", makeDir("shared"));
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        if (XoArbolite3InitializeMinimally(0) != 0 || XoArbolite3Initialize(0) != 0) ++failures;
        XoArbolite3AddUninitializeHook(countRun, nullptr);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  std::thread a(XoArbolite3Uninitialize), b(XoArbolite3Uninitialize);
  a.join();
  b.join();
  EXPECT_EQ(g_hookRuns.load(), 200);
}

}  // namespace
