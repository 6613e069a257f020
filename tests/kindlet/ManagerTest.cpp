#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KINDLET/src/RenderManager.h"
#include "KindletTestSupport.h"
#include "LiveRender.h"
#include "TestPlugin.h"
#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::GroupBuilder;
using Arbolite3::internal::XoAttribute::StringAttribute;
using Arbolite3::XoConfiguration::v1::Config;
using Rendering::Manager;

namespace {

// The log goes to a file of our own, at debug level, before the first message.
const std::string logPath = kindlettest::logToScratch("debug");
using kindlettest::readFile;
using kindlettest::scratch;

GroupAttribute group(const std::vector<std::pair<std::string, Attribute>>& children) {
  GroupBuilder builder;
  for (const auto& child : children) builder.set(child.first, child.second);
  return builder.build();
}

StringAttribute text(const std::string& value) { return StringAttribute(value); }

ControlCommandRecord recordOf(const std::string& bytes) {
  ControlCommandRecord record;
  std::memset(&record, 0, sizeof record);
  std::memcpy(record.text, bytes.data(), std::min(bytes.size(), sizeof record.text));
  return record;
}

const char kStop[] = "stopLiveEditing";

// Pokes with a command until the loop answers with a turn: deliveries before
// the loop has begun wait for a later one, so one poke alone could go unseen.
bool pokeUntilTurn(Manager& manager, TestPlugin& plugin) {
  for (int attempt = 0; attempt < 400; ++attempt) {
    const size_t before = plugin.count("hasQueuedUpdates");
    manager.processControlCommand(std::string("poke"));
    if (plugin.waitForCount("hasQueuedUpdates", before + 1, std::chrono::milliseconds(25)))
      return true;
  }
  return false;
}

// Delivers `update` to a running loop and waits until it has been applied.
bool deliverUntilApplied(Manager& manager, TestPlugin& plugin, const GroupAttribute& update) {
  const size_t before = plugin.count("applyQueuedUpdates");
  manager.processLiveRenderUpdate(update);
  return plugin.waitForCount("applyQueuedUpdates", before + 1);
}

// The calls without the test's own pokes, which may land anywhere.
std::vector<std::string> withoutPokes(std::vector<std::string> calls) {
  calls.erase(std::remove(calls.begin(), calls.end(), "handleControlCommand poke"), calls.end());
  return calls;
}

// ---- the per-render merge of processLiveRenderData ----

// What the plug-in of the render with `sequenceID` gets for `update`.
Attribute delivered(const GroupAttribute& update, long sequenceID = 7) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, sequenceID);
  const std::string bytes = update.getBinary();
  manager.processLiveRenderData(bytes.data(), bytes.size());
  const auto updates = plugin.updates();
  EXPECT_EQ(updates.size(), 1u);
  return updates.empty() ? Attribute() : updates[0];
}

TEST(Merge, OwnChildFirstThenTheUpdateOverItWithoutTheKey) {
  auto withKey = [](const Attribute& perRender) {
    return group({{"a", text("top")}, {"__perRenderUpdateAttributes", perRender}, {"z", text("z")}});
  };
  const GroupAttribute both = withKey(group({{"7", group({{"a", text("own")}, {"b", text("own")}})},
                                             {"8", group({{"c", text("other")}})}}));
  const GroupAttribute topOnly = group({{"a", text("top")}, {"z", text("z")}});
  const GroupAttribute plainKey =
      group({{"a", text("top")}, {"__perRenderUpdateAttributes", text("plain")}});
  const std::vector<std::pair<GroupAttribute, Attribute>> cases = {
      {both, group({{"a", text("top")}, {"b", text("own")}, {"z", text("z")}})},
      // No usable own child: the key goes, nothing else.
      {withKey(group({{"8", group({{"c", text("other")}})}})), topOnly},
      {withKey(group({{"7", text("not a group")}})), topOnly},
      {withKey(group({})), topOnly},
      // A key that is no group passes through whole, as does an update without it.
      {plainKey, plainKey},
      {topOnly, topOnly},
  };
  for (const auto& c : cases) {
    const Attribute got = delivered(c.first);
    EXPECT_EQ(got, c.second) << got.getXML();
  }
  const Attribute forEight = delivered(both, 8);
  EXPECT_EQ(forEight, group({{"c", text("other")}, {"a", text("top")}, {"z", text("z")}}))
      << forEight.getXML();
}

TEST(Merge, BytesThatAreNoGroupAreRejectedWithTheErrorLine) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 7);
  kindlettest::newLogLines();  // only lines from here on count
  const std::string garbage = "not an attribute";
  const std::string plainString = text("x").getBinary();
  manager.processLiveRenderData(garbage.data(), garbage.size());
  manager.processLiveRenderData(plainString.data(), plainString.size());
  manager.processLiveRenderData(nullptr, 0);
  EXPECT_EQ(plugin.count("submitUpdate"), 0u);
  const std::string line =
      "[ERROR Kindlet] Rendering::Manager::processLiveRenderData(): Given binary data could not "
      "be parsed into a GroupAttribute. Ignoring Live Render update.";
  EXPECT_EQ(kindlettest::newLogLines(), (std::vector<std::string>{line, line, line}));
}

// ---- control commands ----

// Only the exact words are known; a text of 256 bytes or more fills the
// record without terminator; a leading NUL makes an empty command.
TEST(Commands, KnownWordsRecordLengthAndEmptyCommands) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
  kindlettest::newLogLines();  // only lines from here on count
  std::string longText(300, 'x');
  longText.replace(0, 15, kStop);
  manager.processControlCommand(std::string("pauseRerender"));
  manager.processControlCommand(recordOf("pauseRerender"));
  manager.processControlCommand(std::string("pauseRerenderNow"));
  manager.processControlCommand(std::string("stopLiveEditing2"));
  manager.processControlCommand(recordOf("render more"));
  manager.processControlCommand(recordOf(std::string("\0stopLiveEditing", 16)));
  manager.processControlCommand(std::string());
  manager.processControlCommand(longText);
  manager.processControlCommand(recordOf(longText));
  const std::string cut = "handleControlCommand " + longText.substr(0, 256);
  EXPECT_EQ(plugin.calls(), (std::vector<std::string>{
                                "pauseRerender", "pauseRerender",
                                "handleControlCommand pauseRerenderNow",
                                "handleControlCommand stopLiveEditing2",
                                "handleControlCommand render more", cut, cut}));
  const std::string warning =
      "[WARNING Kindlet] Live Render control command 'pauseRerender' is deprecated.";
  EXPECT_EQ(kindlettest::newLogLines(), (std::vector<std::string>{warning, warning}));
}

// ---- the live-render loop ----

TEST(LiveLoop, UpdateBeforeTheLoopIsAppliedOnlyAfterALaterEvent) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
  plugin.onStartLiveEditing = [&] { manager.processLiveRenderUpdate(group({{"early", text("1")}})); };
  LiveRender render(manager);
  ASSERT_TRUE(plugin.waitForCount("startLiveEditing", 1));
  ASSERT_TRUE(pokeUntilTurn(manager, plugin));
  manager.processControlCommand(std::string(kStop));
  ASSERT_TRUE(render.returned());
  EXPECT_EQ(render.stop(), 0);

  auto isQuestion = [](const std::string& call) { return call.rfind("hasQueuedUpdates", 0) == 0; };
  const std::vector<std::string> all = plugin.calls();
  // Nothing is asked before the first poke: the early update's wake-up found no waiter.
  EXPECT_LT(std::find(all.begin(), all.end(), "handleControlCommand poke"),
            std::find_if(all.begin(), all.end(), isQuestion));
  const std::vector<std::string> calls = withoutPokes(all);
  const auto question = std::find_if(calls.begin(), calls.end(), isQuestion);
  ASSERT_LT(question + 1, calls.end());
  EXPECT_EQ(*question, "hasQueuedUpdates 1");
  EXPECT_EQ(*(question + 1), "applyQueuedUpdates 1");
  EXPECT_EQ(std::vector<std::string>(calls.end() - 2, calls.end()),
            (std::vector<std::string>{"stopLiveEditing", "stop"}));
}

TEST(LiveLoop, FloodDuringOneLongApplyGivesOneFurtherTurn) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
  LiveRender render(manager);
  ASSERT_TRUE(pokeUntilTurn(manager, plugin));
  plugin.holdApply();
  ASSERT_TRUE(deliverUntilApplied(manager, plugin, group({{"n", text("0")}})));
  // Deliveries never wait for the render: all of these return while the
  // apply is held.
  const std::string bytes = group({{"n", text("more")}}).getBinary();
  for (int i = 0; i < 20; ++i) manager.processLiveRenderData(bytes.data(), bytes.size());
  plugin.releaseApply();
  // No further message: the loop takes its turn for them all the same (the
  // last position of a drag is not left queued).
  ASSERT_TRUE(plugin.waitForCount("applyQueuedUpdates", 2, std::chrono::seconds(2)));
  manager.processControlCommand(std::string(kStop));
  ASSERT_TRUE(render.returned());

  // The turns of the pokes before the update found nothing to apply: the
  // plug-in's "no" (0x100) has high bits set, and only the low byte counts.
  EXPECT_EQ(plugin.callsOf("applyQueuedUpdates"),
            (std::vector<std::string>{"applyQueuedUpdates 1", "applyQueuedUpdates 20"}));
}

TEST(LiveLoop, StopDoesNotDrainAndLaterDeliveriesStillReachThePlugin) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
  LiveRender render(manager);
  ASSERT_TRUE(pokeUntilTurn(manager, plugin));
  plugin.holdApply();
  ASSERT_TRUE(deliverUntilApplied(manager, plugin, group({{"n", text("1")}})));
  manager.processLiveRenderUpdate(group({{"n", text("2")}}));
  manager.processControlCommand(std::string(kStop));
  manager.processControlCommand(recordOf(kStop));  // a second stop is harmless
  plugin.releaseApply();
  ASSERT_TRUE(render.returned());
  EXPECT_EQ(render.stop(), 0);

  std::vector<std::string> calls = withoutPokes(plugin.calls());
  EXPECT_EQ(std::vector<std::string>(calls.end() - 4, calls.end()),
            (std::vector<std::string>{"applyQueuedUpdates 1", "submitUpdate", "stopLiveEditing", "stop"}));

  manager.processLiveRenderUpdate(group({{"n", text("3")}}));
  manager.processControlCommand(std::string("after"));
  manager.processControlCommand(std::string(kStop));
  calls = plugin.calls();
  EXPECT_EQ(std::vector<std::string>(calls.end() - 2, calls.end()),
            (std::vector<std::string>{"submitUpdate", "handleControlCommand after"}));
}

TEST(LiveLoop, StopBeforeTheLoopIsLostAndTheManagerRendersAgain) {
  TestPlugin plugin;
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
  plugin.onStartLiveEditing = [&] { manager.processControlCommand(std::string(kStop)); };
  for (int round = 0; round < 2; ++round) {
    LiveRender render(manager);
    ASSERT_TRUE(pokeUntilTurn(manager, plugin)) << "round " << round;
    manager.processControlCommand(recordOf(kStop));
    ASSERT_TRUE(render.returned());
  }
  EXPECT_EQ(plugin.count("start"), 2u);
  EXPECT_EQ(plugin.count("stop"), 2u);
  EXPECT_EQ(plugin.count("stopLiveEditing"), 2u);
}

// ---- plug-in lifecycle ----

TEST(Lifecycle, BatchMethodsStartAndStopAndTeardownComesOnce) {
  TestPlugin plugin;
  plugin.setupResult = 7;
  {
    Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
    EXPECT_EQ(manager.setup(), 7);
    EXPECT_EQ(manager.render(""), 0);
    EXPECT_EQ(manager.render("liveRenderPreview"), 0);
    EXPECT_EQ(manager.render("diskRender"), 0);
  }
  EXPECT_EQ(plugin.calls(), (std::vector<std::string>{"setup", "start", "stop", "start", "stop",
                                                      "start", "stop", "teardown"}));
}

TEST(Lifecycle, WithoutHandleOrSuiteNothingIsCalled) {
  TestPlugin plugin;
  kindlettest::newLogLines();  // only lines from here on count
  {
    Manager noHandle(nullptr, plugin.suite(), "", 0, 0, 0);
    EXPECT_EQ(noHandle.setup(), -1);
    EXPECT_EQ(noHandle.render(""), 1);
    Manager noSuite(plugin.handle(), nullptr, "", 0, 0, 0);
    EXPECT_EQ(noSuite.setup(), -1);
    EXPECT_EQ(noSuite.render("liveRender"), 1);
  }
  EXPECT_TRUE(plugin.calls().empty());
  EXPECT_EQ(kindlettest::newLogLines(),
            (std::vector<std::string>{
                "[ERROR Kindlet] Rendering::Manager::render(): No render plug-in handle set.",
                "[ERROR Kindlet] Rendering::Manager::render(): No render plug-in suite set."}));
}

// ---- the update debug file ----

class DebugFile : public testing::Test {
 protected:
  void TearDown() override {
    Config().erase("SELVANE_LRUA_DEBUG");
    Config().erase("SELVANE_DISABLE_PREVANE_PLUS");
  }
};

TEST_F(DebugFile, RecordsOnlyUpdatesFromTheClientPathFlushedBeforeThePlugin) {
  const std::string path = scratch().file("lrua.txt");
  Config().set("SELVANE_LRUA_DEBUG", path);
  TestPlugin plugin;
  std::vector<std::string> seenBySubmit;
  plugin.onSubmit = [&] { seenBySubmit.push_back(readFile(path)); };
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 7);
  kindlettest::newLogLines();  // only lines from here on count

  const GroupAttribute update =
      group({{"a", text("<1>")}, {"__perRenderUpdateAttributes", group({{"7", group({})}})}});
  manager.processLiveRenderUpdate(update);
  const std::string recordText = update.getXML() + "\n<<<<<<<<\n\n";
  ASSERT_EQ(seenBySubmit.size(), 1u);
  EXPECT_EQ(seenBySubmit[0], recordText);
  // Passed on as it came: the same handle, key and all.
  EXPECT_EQ(plugin.submittedHandles(), std::vector<XoAttributeStruct*>{update.getHandle()});
  EXPECT_EQ(kindlettest::newLogLines(),
            std::vector<std::string>{"[DEBUG Kindlet] Processing Live Render Update: " + update.getXML()});

  const std::string bytes = update.getBinary();
  manager.processLiveRenderData(bytes.data(), bytes.size());
  manager.processControlCommand(std::string("cmd"));
  EXPECT_EQ(readFile(path), recordText);
  EXPECT_TRUE(kindlettest::newLogLines().empty());
}

TEST_F(DebugFile, WarningUnderTheSwitchAndTheFileOpensAllTheSame) {
  const std::string path = scratch().file("lrua-switch.txt");
  Config().set("SELVANE_LRUA_DEBUG", path);
  Config().set("SELVANE_DISABLE_PREVANE_PLUS", "1");
  TestPlugin plugin;
  kindlettest::newLogLines();  // only lines from here on count
  Manager manager(plugin.handle(), plugin.suite(), "", 0, 0, 0);
  EXPECT_EQ(kindlettest::newLogLines(), std::vector<std::string>{
                             "[WARNING Kindlet] Live render update attribute debugging "
                             "(SELVANE_LRUA_DEBUG) only available in Prevane+"});
  manager.processLiveRenderUpdate(group({{"a", text("1")}}));
  EXPECT_NE(readFile(path).find("<<<<<<<<"), std::string::npos);
}

}  // namespace
