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
using testing::ElementsAre;
using testing::MatchesRegex;

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

TEST_F(RecordingPlugin, RecordsEverySlotWithItsThread) {
  XoRendererPlugin p = create({{"setupResult", "7"}});
  XoRendererPluginSuite& s = *p.suite;
  EXPECT_EQ(s.setup(p.handle), 7);
  s.start(p.handle);
  s.startLiveEditing(p.handle);
  std::string otherTid;
  std::thread([&] {
    otherTid = tid();
    s.pauseRerender(p.handle);
    s.handleControlCommand(p.handle, "frame 3\nnow");
  }).join();
  // A full command record has no terminator: only its 256 bytes count.
  std::vector<char> full(256, 'a');
  s.handleControlCommand(p.handle, full.data());
  EXPECT_EQ(s.hasQueuedUpdates(p.handle) & 0xff, 0);
  s.applyQueuedUpdates(p.handle);
  s.stopLiveEditing(p.handle);
  s.stop(p.handle);
  s.teardown(p.handle);
  XoRendererPluginManager::destroyInstances();

  const std::string t = tid();
  const std::vector<testing::Matcher<std::string>> expected = {
      MatchesRegex("create " + t + " - \\{recordFile=\".*\",setupResult=\"7\"\\}"),
      "setup " + t + " 7",
      "start " + t,
      "startLiveEditing " + t,
      "pauseRerender " + otherTid,
      "handleControlCommand " + otherTid + " frame 3\\nnow",
      "handleControlCommand " + t + " " + std::string(256, 'a'),
      "hasQueuedUpdates " + t + " 0",
      "applyQueuedUpdates " + t + " 0",
      "stopLiveEditing " + t,
      "stop " + t,
      "teardown " + t,
      "destroy " + t + " 0"};
  EXPECT_THAT(lines(), testing::ElementsAreArray(expected));
  EXPECT_NE(otherTid, t);
}

Arbolite3::internal::XoScenegraphIterator sceneFile(const std::string& name,
                                                   const std::string& json) {
  const std::string path = kindlettest::scratch().path() + "/" + name;
  std::ofstream(path) << json;
  return Arbolite3::internal::XoScenegraphIterator::getIteratorFromFile(path);
}

TEST_F(RecordingPlugin, RecordsTheScenesItIsGiven) {
  XoRendererPlugin p;
  {
    // The plug-in keeps the iterators alive after the caller dropped them.
    auto first = sceneFile("first.json",
                           R"({"optree": 1, "root": {"children": [{"name": "a"}, {"name": "b"}]}})");
    ASSERT_TRUE(first.isValid());
    p = create({}, first.getHandle());
    auto second = sceneFile("second.json", R"({"optree": 1, "root": {"name": "top"}})");
    ASSERT_TRUE(second.isValid());
    p.suite->setSceneIterator(p.handle, second.getHandle());
  }
  XoRendererPluginManager::destroyInstances();
  const std::string t = tid();
  EXPECT_THAT(lines(), ElementsAre(MatchesRegex("create " + t + " /root\\(a,b\\) \\{recordFile=.*\\}"),
                                   "setSceneIterator " + t + " /top()", "destroy " + t + " 0"));
}

TEST_F(RecordingPlugin, DescribesUpdatesOnOneLine) {
  XoRendererPlugin p = create({});
  GroupBuilder inner;
  inner.set("f", FloatAttribute(2.5f));
  const int32_t ints[] = {1, 2, 3};
  GroupBuilder update;
  update.set("b", IntAttribute(1))
      .set("a", StringAttribute("say \"hi\"\n"))
      .set("g", inner.build())
      .set("v", IntAttribute(ints, 3, 1))
      .set("d", DoubleAttribute(0.1))
      .set("n", NullAttribute());
  GroupAttribute built = update.build();
  p.suite->submitUpdate(p.handle, built.getHandle());
  p.suite->submitUpdate(p.handle, GroupBuilder().build().getHandle());
  EXPECT_EQ(p.suite->hasQueuedUpdates(p.handle) & 0xff, 1);
  XoRendererPluginManager::destroyInstances();

  const std::string t = tid();
  EXPECT_THAT(lines(),
              ElementsAre(testing::StartsWith("create "),
                          "submitUpdate " + t +
                              " {b=1,a=\"say \\\"hi\\\"\\n\",g={f=2.5},v=[1 2 3],d=0.1,n=null}",
                          "submitUpdate " + t + " {}", "hasQueuedUpdates " + t + " 1",
                          // Unapplied updates are released, and counted, on destroy.
                          "destroy " + t + " 2"));
}

// Several delivering threads submit while the "main loop" thread polls and
// applies, as during a live render. Every update is applied exactly once, in
// each thread's order, and no line is torn.
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
