// Rendering::Manager in-process, against a suite of plain functions that
// records every call and keeps a counted queue like a live renderer would.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KINDLET/src/RenderManager.h"
#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"
#include "support/KindletTestSupport.h"

using namespace Arbolite3::internal::XoAttribute;
using Rendering::Manager;

namespace {

struct Recorder {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> calls;
  std::vector<GroupAttribute> updates;
  int queued = 0;
  std::atomic<int> applyDelayMs{0};
} g;

void record(const std::string& call) {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.calls.push_back(call);
  g.changed.notify_all();
}

int32_t slotStart(XoRendererPluginHandle) { record("start"); return 0; }
int32_t slotStop(XoRendererPluginHandle) { record("stop"); return 0; }
int32_t slotStartLive(XoRendererPluginHandle) { record("startLiveEditing"); return 0; }
int32_t slotStopLive(XoRendererPluginHandle) { record("stopLiveEditing"); return 0; }
int32_t slotPause(XoRendererPluginHandle) { record("pauseRerender"); return 0; }
int32_t slotSetup(XoRendererPluginHandle) { record("setup"); return 0; }
int32_t slotTeardown(XoRendererPluginHandle) { record("teardown"); return 0; }
int32_t slotCommand(XoRendererPluginHandle, const char* command) {
  // The record may have no terminator: never read past its 256 bytes.
  record("handleControlCommand " + std::string(command, strnlen(command, 256)));
  return 0;
}
int32_t slotSubmit(XoRendererPluginHandle, XoAttributeStruct* update) {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.updates.emplace_back(Attribute::fromHandle(update));
  g.calls.push_back("submitUpdate");
  ++g.queued;
  g.changed.notify_all();
  return 0;
}
int32_t slotHasQueued(XoRendererPluginHandle) {
  std::lock_guard<std::mutex> lock(g.mutex);
  g.calls.push_back("hasQueuedUpdates");
  g.changed.notify_all();
  // Only the low byte counts: the high bits here must not read as true.
  return g.queued > 0 ? 0x101 : 0x100;
}
int32_t slotApply(XoRendererPluginHandle) {
  {
    std::lock_guard<std::mutex> lock(g.mutex);
    g.calls.push_back("applyQueuedUpdates " + std::to_string(g.queued));
    g.queued = 0;
    g.changed.notify_all();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(g.applyDelayMs.load()));
  return 0;
}

XoRendererPluginSuite makeSuite() {
  XoRendererPluginSuite suite;
  std::memset(&suite, 0, sizeof suite);
  suite.start = slotStart;
  suite.stop = slotStop;
  suite.startLiveEditing = slotStartLive;
  suite.stopLiveEditing = slotStopLive;
  suite.pauseRerender = slotPause;
  suite.handleControlCommand = slotCommand;
  suite.submitUpdate = slotSubmit;
  suite.hasQueuedUpdates = slotHasQueued;
  suite.applyQueuedUpdates = slotApply;
  suite.setup = slotSetup;
  suite.teardown = slotTeardown;
  return suite;
}

XoRendererPluginSuite g_suite = makeSuite();
int g_instance;

std::vector<std::string> calls() {
  std::lock_guard<std::mutex> lock(g.mutex);
  return g.calls;
}

size_t countOf(const std::string& prefix) {
  auto all = calls();
  return std::count_if(all.begin(), all.end(), [&](const std::string& call) {
    return call.compare(0, prefix.size(), prefix) == 0;
  });
}

bool waitUntil(const std::function<bool()>& done, int limitMs = 5000) {
  std::unique_lock<std::mutex> lock(g.mutex);
  return g.changed.wait_for(lock, std::chrono::milliseconds(limitMs), [&] {
    lock.unlock();
    bool result = done();
    lock.lock();
    return result;
  });
}

GroupAttribute group(std::initializer_list<std::pair<std::string, Attribute>> children) {
  GroupBuilder builder;
  for (const auto& child : children) builder.set(child.first, child.second, true);
  return builder.build();
}

Attribute integer(int value) { return IntAttribute(value); }

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::lock_guard<std::mutex> lock(g.mutex);
    g.calls.clear();
    g.updates.clear();
    g.queued = 0;
    g.applyDelayMs = 0;
  }
  std::unique_ptr<Manager> makeManager(long sequenceID = 5) {
    return std::unique_ptr<Manager>(new Manager(&g_instance, &g_suite, "", 0, 0, sequenceID));
  }
  GroupAttribute lastUpdate() {
    std::lock_guard<std::mutex> lock(g.mutex);
    return g.updates.empty() ? GroupAttribute() : g.updates.back();
  }
  void deliverData(Manager& manager, const GroupAttribute& update) {
    std::string bytes = update.getBinary();
    manager.processLiveRenderData(bytes.data(), bytes.size());
  }
};

TEST_F(ManagerTest, PerRenderPartGoesInFirstOtherRendersAreDropped) {
  auto five = makeManager(5);
  auto six = makeManager(6);
  GroupAttribute update = group(
      {{"a", integer(1)},
       {"__perRenderUpdateAttributes",
        group({{"5", group({{"a", integer(2)}, {"b", integer(3)}})},
               {"6", group({{"c", integer(4)}})}})}});

  deliverData(*five, update);
  GroupAttribute forFive = lastUpdate();
  EXPECT_EQ(IntAttribute(forFive.getChildByName("a")).getValue(), 1);  // common update wins
  EXPECT_EQ(IntAttribute(forFive.getChildByName("b")).getValue(), 3);
  EXPECT_FALSE(forFive.getChildByName("c").isValid());
  EXPECT_FALSE(forFive.getChildByName("__perRenderUpdateAttributes").isValid());

  // One message, two renders: each gets its own part.
  deliverData(*six, update);
  GroupAttribute forSix = lastUpdate();
  EXPECT_EQ(IntAttribute(forSix.getChildByName("c")).getValue(), 4);
  EXPECT_FALSE(forSix.getChildByName("b").isValid());
  EXPECT_EQ(forSix.getNumberOfChildren(), 2u);
}

TEST_F(ManagerTest, KeyWithoutUsablePartIsRemovedOrPassedThroughWhole) {
  auto manager = makeManager(5);
  // Only other renders' parts: the key goes, nothing else changes.
  deliverData(*manager, group({{"x", integer(1)},
                               {"__perRenderUpdateAttributes", group({{"7", group({{"y", integer(2)}})}})}}));
  EXPECT_EQ(lastUpdate().getXML(), group({{"x", integer(1)}}).getXML());

  // This render's part is no group: it counts as absent.
  deliverData(*manager, group({{"x", integer(1)},
                               {"__perRenderUpdateAttributes", group({{"5", integer(9)}})}}));
  EXPECT_EQ(lastUpdate().getXML(), group({{"x", integer(1)}}).getXML());

  // The key itself is no group: the update goes through whole, key included.
  GroupAttribute plainKey = group({{"x", integer(1)}, {"__perRenderUpdateAttributes", integer(3)}});
  deliverData(*manager, plainKey);
  EXPECT_EQ(lastUpdate().getXML(), plainKey.getXML());
}

TEST_F(ManagerTest, DataThatIsNoGroupIsLoggedAndDropped) {
  auto manager = makeManager();
  testing::internal::CaptureStderr();
  const char garbage[] = "not an attribute";
  manager->processLiveRenderData(garbage, sizeof garbage);
  std::string notGroup = IntAttribute(4).getBinary();
  manager->processLiveRenderData(notGroup.data(), notGroup.size());
  std::string err = testing::internal::GetCapturedStderr();
  const std::string line =
      "Rendering::Manager::processLiveRenderData(): Given binary data could not be parsed into a "
      "GroupAttribute. Ignoring Live Render update.";
  EXPECT_EQ(kindlettest::splitLines(err).size(), 2u) << err;
  EXPECT_NE(err.find(line), std::string::npos) << err;
  EXPECT_EQ(countOf("submitUpdate"), 0u);
}

TEST_F(ManagerTest, CommandRecordsMatchOnlyExactWords) {
  auto manager = makeManager();
  manager->processControlCommand(std::string("stopLiveEditingNow"));
  manager->processControlCommand(std::string("pauseRerenderX"));
  testing::internal::CaptureStderr();
  manager->processControlCommand(std::string("pauseRerender"));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Live Render control command 'pauseRerender' is deprecated."), std::string::npos);

  // 300 bytes reach the plug-in as the record's 256, unterminated.
  std::string longText(300, 'k');
  manager->processControlCommand(longText);
  ControlCommandRecord full;
  std::memset(full.text, 'z', sizeof full.text);
  std::memcpy(full.text, "stopLiveEditing", 15);  // no terminator follows
  manager->processControlCommand(full);

  // A leading zero byte: nothing at all, whatever follows.
  ControlCommandRecord empty;
  std::memset(&empty, 0, sizeof empty);
  std::strcpy(empty.text + 1, "stopLiveEditing");
  manager->processControlCommand(empty);
  manager->processControlCommand(std::string());

  std::vector<std::string> expected = {
      "handleControlCommand stopLiveEditingNow", "handleControlCommand pauseRerenderX",
      "pauseRerender", "handleControlCommand " + std::string(256, 'k'),
      "handleControlCommand stopLiveEditing" + std::string(256 - 15, 'z')};
  EXPECT_EQ(calls(), expected);
}

TEST_F(ManagerTest, DebugFileRecordsOnlyDirectUpdates) {
  kindlettest::TempDir dir;
  std::string path = dir.file("updates.txt");
  auto& config = Arbolite3::XoConfiguration::v1::Config();
  config.set("SELVANE_LRUA_DEBUG", path);
  auto manager = makeManager();
  config.set("SELVANE_LRUA_DEBUG", "");

  GroupAttribute first = group({{"a", integer(1)}});
  GroupAttribute second = group({{"__perRenderUpdateAttributes", group({{"5", group({})}})}});
  deliverData(*manager, first);  // data channel path: no record
  {
    std::ifstream file(path);
    ASSERT_TRUE(file.good());
    EXPECT_EQ(file.peek(), std::ifstream::traits_type::eof());
  }
  manager->processLiveRenderUpdate(first);
  manager->processLiveRenderUpdate(second);
  std::ifstream file(path);
  std::stringstream content;
  content << file.rdbuf();
  EXPECT_EQ(content.str(),
            first.getXML() + "\n<<<<<<<<\n\n" + second.getXML() + "\n<<<<<<<<\n\n");
  // This path leaves the key alone.
  EXPECT_EQ(lastUpdate().getXML(), second.getXML());
}

// A live render on its own thread, as the main thread would run it.
class LiveRender {
 public:
  explicit LiveRender(Manager& manager) : manager(manager) {
    thread = std::thread([this] {
      this->manager.render("liveRender");
      done = true;
    });
  }
  ~LiveRender() {
    if (thread.joinable()) stop();
  }
  // Stop commands until the loop has left; a stop whose wake-up falls before
  // the wait is carried along by the next one.
  void stop() {
    for (int i = 0; i < 200 && !done; ++i) {
      manager.processControlCommand(std::string("stopLiveEditing"));
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    thread.join();
  }
  bool finished() const { return done; }

 private:
  Manager& manager;
  std::atomic<bool> done{false};
  std::thread thread;
};

// Sends "ping" commands until the loop has made `turns` more apply calls.
void pingUntilApplied(Manager& manager, size_t applies) {
  for (int i = 0; i < 200 && countOf("applyQueuedUpdates") < applies; ++i) {
    manager.processControlCommand(std::string("ping"));
    waitUntil([&] { return countOf("applyQueuedUpdates") >= applies; }, 20);
  }
}

TEST_F(ManagerTest, UpdateBeforeTheLoopIsAppliedOnlyAfterALaterEvent) {
  auto manager = makeManager();
  manager->processLiveRenderUpdate(group({{"early", integer(1)}}));
  LiveRender live(*manager);
  ASSERT_TRUE(waitUntil([] { return countOf("startLiveEditing") == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(countOf("hasQueuedUpdates"), 0u);

  pingUntilApplied(*manager, 1);
  auto all = calls();
  ASSERT_NE(std::find(all.begin(), all.end(), "applyQueuedUpdates 1"), all.end());
  live.stop();
  EXPECT_EQ(calls().back(), "stop");
}

TEST_F(ManagerTest, FloodDuringOneLongApplyGivesAtMostOneFurtherTurn) {
  auto manager = makeManager();
  LiveRender live(*manager);
  ASSERT_TRUE(waitUntil([] { return countOf("startLiveEditing") == 1; }));
  g.applyDelayMs = 300;
  manager->processLiveRenderUpdate(group({{"first", integer(1)}}));
  pingUntilApplied(*manager, 1);

  // The loop is inside the long apply: flood it from two threads.
  auto flood = [&] {
    for (int i = 0; i < 50; ++i) manager->processLiveRenderUpdate(group({{"n", integer(i)}}));
  };
  std::thread a(flood), b(flood);
  a.join();
  b.join();
  g.applyDelayMs = 0;
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LE(countOf("applyQueuedUpdates"), 2u);

  // Whatever is still queued goes in one batch on the next turn.
  size_t before = countOf("applyQueuedUpdates");
  pingUntilApplied(*manager, before + 1);
  auto all = calls();
  size_t applied = 0;
  for (const std::string& call : all)
    if (call.compare(0, 19, "applyQueuedUpdates ") == 0) applied += std::stoul(call.substr(19));
  EXPECT_EQ(applied, 101u);
  live.stop();
}

TEST_F(ManagerTest, StopDoesNotDrainAndASecondStopIsHarmless) {
  auto manager = makeManager();
  LiveRender live(*manager);
  ASSERT_TRUE(waitUntil([] { return countOf("startLiveEditing") == 1; }));
  g.applyDelayMs = 300;
  manager->processLiveRenderUpdate(group({{"first", integer(1)}}));
  pingUntilApplied(*manager, 1);
  // Both arrive during the long apply: the loop leaves without asking again.
  manager->processLiveRenderUpdate(group({{"late", integer(2)}}));
  manager->processControlCommand(std::string("stopLiveEditing"));
  manager->processControlCommand(std::string("stopLiveEditing"));
  size_t asked = countOf("hasQueuedUpdates");
  live.stop();
  EXPECT_EQ(countOf("hasQueuedUpdates"), asked);
  EXPECT_EQ(countOf("applyQueuedUpdates"), 1u);
  auto all = calls();
  ASSERT_GE(all.size(), 2u);
  EXPECT_EQ(all[all.size() - 2], "stopLiveEditing");
  EXPECT_EQ(all.back(), "stop");

  // After render returned a delivery still reaches the plug-in.
  manager->processLiveRenderUpdate(group({{"after", integer(3)}}));
  manager->processControlCommand(std::string("afterwards"));
  EXPECT_EQ(calls().back(), "handleControlCommand afterwards");
  EXPECT_EQ(lastUpdate().getXML(), group({{"after", integer(3)}}).getXML());
}

TEST_F(ManagerTest, BatchRenderAndDestructorCallTeardown) {
  {
    auto manager = makeManager();
    EXPECT_EQ(manager->setup(), 0);
    EXPECT_EQ(manager->render(""), 0);
  }
  std::vector<std::string> expected = {"setup", "start", "stop", "teardown"};
  EXPECT_EQ(calls(), expected);

  Manager withoutHandle(nullptr, &g_suite, "", 0, 0, 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(withoutHandle.render(""), 1);
  EXPECT_EQ(withoutHandle.setup(), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Rendering::Manager::render(): No render plug-in handle set."),
            std::string::npos);
}

}  // namespace
