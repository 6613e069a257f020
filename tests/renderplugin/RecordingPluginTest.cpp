#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <regex>
#include <thread>

#include "KindletTestSupport.h"
#include "XoRendererPlugin/XoRendererPluginManager.h"
#include "XoScenegraph/XoScenegraphIterator.h"

using namespace Arbolite3::internal::XoAttribute;
using Rendering::XoRendererPlugin;
using Rendering::XoRendererPluginManager;

namespace {

std::string tid() { return std::to_string(syscall(SYS_gettid)); }

class RecordingPlugin : public testing::Test {
 protected:
  XoRendererPlugin create(std::vector<std::pair<std::string, std::string>> args,
                          XoSgIteratorStruct* scene = nullptr) {
    args.insert(args.begin(), {"recordFile", record_});
    arguments_ = kindlettest::stringGroup(args);
    return XoRendererPluginManager::getRendererPlugin("recording", scene,
                                                      arguments_.getHandle());
  }
  void TearDown() override { XoRendererPluginManager::destroyInstances(); }
  std::vector<std::string> lines() const { return kindlettest::readLines(record_); }

  const std::string record_ =
      kindlettest::scratch().path() + "/" +
      testing::UnitTest::GetInstance()->current_test_info()->name() + ".txt";
  GroupAttribute arguments_;
};

TEST_F(RecordingPlugin, QueueSurvivesConcurrentSubmitAndApply) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 300;
  XoRendererPlugin p = create({});
  XoRendererPluginSuite& s = *p.suite;

  std::atomic<int> producersLeft{kThreads};
  std::thread loop([&] {
    for (;;) {
      const bool done = producersLeft.load() == 0;
      if (s.hasQueuedUpdates(p.handle) & 0xff)
        s.applyQueuedUpdates(p.handle);
      else if (done)
        break;
    }
  });
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        // Built and dropped here: the plug-in must hold its own reference.
        GroupAttribute update =
            GroupBuilder().set("t", IntAttribute(t)).set("i", IntAttribute(i)).build();
        s.submitUpdate(p.handle, update.getHandle());
        if (i % 50 == 0) s.handleControlCommand(p.handle, "ping");
      }
      --producersLeft;
    });
  }
  for (auto& producer : producers) producer.join();
  loop.join();
  XoRendererPluginManager::destroyInstances();

  const std::regex submit("submitUpdate [0-9]+ \\{t=([0-9]+),i=([0-9]+)\\}");
  const std::regex apply("applyQueuedUpdates [0-9]+ ([0-9]+)");
  const std::regex other("(create|handleControlCommand|hasQueuedUpdates|destroy) [0-9]+ .*");
  std::map<int, int> nextOf;
  int submitted = 0, applied = 0;
  for (const std::string& line : lines()) {
    std::smatch m;
    if (std::regex_match(line, m, submit)) {
      int t = std::stoi(m[1]), i = std::stoi(m[2]);
      EXPECT_EQ(i, nextOf[t]++) << "thread " << t;
      ++submitted;
    } else if (std::regex_match(line, m, apply)) {
      applied += std::stoi(m[1]);
      EXPECT_LE(applied, submitted) << "applied before it was submitted";
    } else {
      EXPECT_TRUE(std::regex_match(line, other)) << "torn or unknown line: " << line;
    }
  }
  EXPECT_EQ(submitted, kThreads * kPerThread);
  EXPECT_EQ(applied, kThreads * kPerThread);
  EXPECT_EQ(lines().back(), "destroy " + tid() + " 0");
}

}  // namespace
