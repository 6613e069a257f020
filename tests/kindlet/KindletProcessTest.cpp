// The installed kindlet, run as its parent runs it, with the recording
// renderer writing down every plug-in call.
#include <signal.h>

#include <thread>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KindletTestSupport.h"
#include "XoAttribute/Attribute.h"

using kindlettest::readRecordFile;
using kindlettest::recordedSlots;
using kindlettest::RecordLine;
using kindlettest::RunResult;
using kindlettest::runKindlet;
using kindlettest::sendAll;
using kindlettest::splitLines;

namespace {

using Options = std::map<std::string, std::string>;
using Slots = std::vector<std::string>;

const std::string kExampleScene = kindlettest::testRoot() + "/share/kindlet/examples/scene.optree.json";

class Kindlet : public testing::Test {
 protected:
  // The required options, a record file, and what the test adds or changes
  // (an empty value stays as an empty value).
  Options options(const Options& changes = {}) const {
    Options result{{"selvaneRoot", kindlettest::testRoot()},
                   {"tempDir", dir.path()},
                   {"arbolite3OpTree", kExampleScene},
                   {"renderer", "recording"},
                   {"renderMethodName", "diskRender"},
                   {"recordFile", recordPath()}};
    for (const auto& change : changes) result[change.first] = change.second;
    return result;
  }
  static std::vector<std::string> argv(const Options& options) {
    std::vector<std::string> result;
    for (const auto& option : options) {
      result.push_back("-" + option.first);
      result.push_back(option.second);
    }
    return result;
  }
  RunResult run(const Options& changes = {}, const Options& environment = {}) {
    return runKindlet(argv(options(changes)), environment, std::chrono::seconds(60));
  }
  std::string recordPath() const { return dir.file("record.txt"); }
  std::vector<RecordLine> records() const { return readRecordFile(recordPath()); }
  Slots slots() const { return recordedSlots(records()); }
  // A copy of the example scene under dir/name.
  std::string scene(const std::string& name) const {
    return dir.write(name, kindlettest::readFile(kExampleScene));
  }

  kindlettest::TempDir dir;
};

// ---- the command line ----

TEST_F(Kindlet, EachMissingOrEmptyRequiredOptionIsNamed) {
  const RunResult none = runKindlet({});
  EXPECT_EQ(none.out,
            "Missing selvaneRoot\nMissing tempDir\nMissing arbolite3OpTree\nMissing renderer\n"
            "Missing renderMethodName\n");
  EXPECT_EQ(none.exitStatus, 255);
  for (const std::string name :
       {"selvaneRoot", "tempDir", "arbolite3OpTree", "renderer", "renderMethodName"}) {
    Options without = options();
    without.erase(name);
    for (const Options& given : {without, options({{name, ""}})}) {
      const RunResult result = runKindlet(argv(given));
      EXPECT_EQ(result.out, "Missing " + name + "\n");
      EXPECT_EQ(result.err, "") << "no bootstrap, no log";
      EXPECT_EQ(result.exitStatus, 255);
    }
  }
  EXPECT_TRUE(slots().empty());
}

// ---- a batch render ----

TEST_F(Kindlet, BatchRenderCallsThePluginInOrderOnTheMainThread) {
  const RunResult result = run();
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(slots(), (Slots{"create", "setup", "start", "stop", "teardown", "destroy"}));
  for (const RecordLine& line : records()) EXPECT_EQ(line.tid, result.pid) << line.slot;
  // One file: no progress line.
  EXPECT_EQ(result.err.find("Finished rendering scene"), std::string::npos) << result.err;
}

// The messaging library of live sessions is opened by the first session;
// a batch render must not pay for mapping it and its dependencies.
TEST_F(Kindlet, BatchRenderLeavesTheLiveSessionLibraryUnloaded) {
  const std::string trace = dir.file("loader");
  const RunResult result = run({}, {{"LD_DEBUG", "files"}, {"LD_DEBUG_OUTPUT", trace}});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const std::string loaded = kindlettest::readFile(trace + "." + std::to_string(result.pid));
  EXPECT_NE(loaded.find("libXoLiveRendering.so"), std::string::npos) << "no loader trace";
  EXPECT_EQ(loaded.find("libzmq"), std::string::npos) << loaded;
}

TEST_F(Kindlet, EveryOptionReachesThePluginIncludingUnknownAndIndexedOnes) {
  const RunResult result =
      run({{"customFlag", "yes"}, {"threads", ""}, {"sequenceID", "0x10"}, {"host", ""}});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const std::vector<RecordLine> lines = records();
  ASSERT_FALSE(lines.empty());
  ASSERT_EQ(lines[0].slot, "create");
  Options expected = options({{"customFlag", "yes"}, {"threads", ""}, {"sequenceID", "0x10"},
                              {"host", ""}, {"t", ""}});
  std::string group = "{";
  for (const auto& option : expected)
    group += (group.size() > 1 ? "," : "") + option.first + "=\"" + option.second + "\"";
  group += "}";
  const std::string& details = lines[0].details;
  ASSERT_GE(details.size(), group.size());
  EXPECT_EQ(details.substr(details.size() - group.size()), group);
}

TEST_F(Kindlet, MalformedThreadsOrHostEndAbnormally) {
  for (const Options& bad : {Options{{"threads", "abc"}}, Options{{"host", "studio-1"}}}) {
    const RunResult result = run(bad);
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_EQ(result.signal, SIGABRT) << bad.begin()->first;
  }
  EXPECT_TRUE(slots().empty()) << "both end before the plug-in is loaded";
}

// ---- failures with an exit code ----

TEST_F(Kindlet, SetupResultBecomesTheExitStatusWithoutARender) {
  const RunResult result = run({{"setupResult", "7"}});
  EXPECT_EQ(result.exitStatus, 7);
  EXPECT_NE(result.err.find("[ERROR Kindlet] Error calling setup() on render plug-in: "
                            "\"recording\". Error code returned: 7\n"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(slots(), (Slots{"create", "setup", "teardown", "destroy"}));
}

TEST_F(Kindlet, UnknownRendererUnreadableFileOrEmptyPatternIsNamed) {
  const std::string missing = dir.file("missing.optree.json");
  const std::string pattern = dir.file("shot.*.json");
  const std::vector<std::pair<Options, std::string>> cases = {
      {{{"renderer", "x"}}, "Could not get renderer plug-in for renderer \"x\": "},
      {{{"arbolite3OpTree", missing}},
       "Error creating XoScenegraphIterator from Arbolite3 Op tree file \"" + missing + "\".\n"},
      {{{"arbolite3OpTree", pattern}, {"t", "5-1"}},
       "No files match the given Arbolite3 Op tree filename pattern \"" + pattern + "\".\n"},
  };
  for (const auto& c : cases) {
    const RunResult result = run(c.first);
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_NE(result.err.find("[ERROR Kindlet] " + c.second), std::string::npos) << result.err;
  }
  EXPECT_TRUE(slots().empty());
}

// ---- a sequence of Op tree files ----

TEST_F(Kindlet, SequenceRendersEachFileWithProgress) {
  scene("shot.000001.json");
  scene("shot.000002.json");
  scene("shot.000003.json");
  const RunResult result = run({{"arbolite3OpTree", dir.file("shot.*.json")}, {"t", "1-3"}});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(slots(), (Slots{"create", "setup", "start", "stop", "setSceneIterator", "start", "stop",
                            "setSceneIterator", "start", "stop", "teardown", "destroy"}));
  std::vector<std::string> progress;
  for (const std::string& line : splitLines(result.err))
    if (line.find("Finished rendering scene") != std::string::npos) progress.push_back(line);
  EXPECT_EQ(progress, (std::vector<std::string>{
                          "[INFO Kindlet] [ 33%] Finished rendering scene from Op tree 1 of 3.",
                          "[INFO Kindlet] [ 66%] Finished rendering scene from Op tree 2 of 3.",
                          "[INFO Kindlet] [100%] Finished rendering scene from Op tree 3 of 3."}));
}

TEST_F(Kindlet, UnreadableSecondFileEndsTheSequenceWith255) {
  scene("shot.000001.json");
  const std::string second = dir.write("shot.000002.json", "{ not an op tree");
  const RunResult result = run({{"arbolite3OpTree", dir.file("shot.*.json")}, {"t", "1,2"}});
  EXPECT_EQ(result.exitStatus, 255);
  EXPECT_EQ(slots(), (Slots{"create", "setup", "start", "stop", "teardown", "destroy"}));
  const std::string progress = "[INFO Kindlet] [ 50%] Finished rendering scene from Op tree 1 of 2.\n";
  const std::string error = "[ERROR Kindlet] Error creating XoScenegraphIterator from Arbolite3 "
                            "Op tree file \"" + second + "\".\n";
  ASSERT_NE(result.err.find(progress), std::string::npos) << result.err;
  EXPECT_GT(result.err.find(error), result.err.find(progress)) << result.err;
}

// ---- a live render with no feed ----

TEST_F(Kindlet, LiveRenderUnderTheSwitchWithoutHostWaitsInTheLoop) {
  const RunResult result = runKindlet(
      argv(options({{"renderMethodType", "liveRender"}})), {{"SELVANE_DISABLE_PREVANE_PLUS", "1"}},
      std::chrono::seconds(30), [this] {
        const Slots recorded = slots();
        return !recorded.empty() && recorded.back() == "startLiveEditing";
      });
  EXPECT_TRUE(result.killedEarly) << result.err;
  EXPECT_EQ(slots(), (Slots{"create", "setup", "start", "startLiveEditing"}));
}

// ---- a live render fed over TCP ----

TEST_F(Kindlet, HexSequenceIDSelectsThisRendersPartOfAnUpdate) {
  using namespace Arbolite3::internal::XoAttribute;
  kindlettest::LocalListener control, data;
  const std::string frame = kindlettest::dataFrame(
      GroupBuilder()
          .set("a", StringAttribute("top"))
          .set("__perRenderUpdateAttributes.16.own", StringAttribute("yes"))
          .set("__perRenderUpdateAttributes.10.other", StringAttribute("no"))
          .build()
          .getBinary());

  bool fed = false;
  std::thread sender([&] {
    try {  // sendAll throws once kindlet has gone
      Arbolite3::Base::FileDescriptor controlPeer = control.accept(), dataPeer = data.accept();
      if (!controlPeer || !dataPeer) return;
      sendAll(dataPeer.get(), frame);
      // The stop overtakes updates still on their way: wait until it arrived.
      for (int i = 0; i < 1000; ++i) {
        const Slots recorded = slots();
        if (std::find(recorded.begin(), recorded.end(), "submitUpdate") != recorded.end()) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      sendAll(controlPeer.get(), kindlettest::controlRecord("stopLiveEditing"));
      fed = true;
      // A stop whose wake-up falls between two turns of the loop waits for the
      // next message: nudge until the render has stopped.
      for (int i = 0; i < 200; ++i) {
        const Slots recorded = slots();
        if (std::find(recorded.begin(), recorded.end(), "stop") != recorded.end()) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sendAll(controlPeer.get(), kindlettest::controlRecord("nudge"));
      }
    } catch (const std::exception&) {
    }
  });
  const RunResult result = runKindlet(
      argv(options({{"renderMethodType", "liveRender"},
                    {"sequenceID", "0x10"},
                    {"host", "127.0.0.1:any"},
                    {"portControl", std::to_string(control.port())},
                    {"portData", std::to_string(data.port())}})),
      {{"SELVANE_DISABLE_PREVANE_PLUS", "1"}}, std::chrono::seconds(30));
  sender.join();
  EXPECT_TRUE(fed);
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  bool found = false;
  for (const RecordLine& line : records()) {
    if (line.slot == "submitUpdate") {
      found = true;
      EXPECT_EQ(line.details, "{own=\"yes\",a=\"top\"}");
      EXPECT_NE(line.tid, result.pid) << "delivered on the data reader thread";
    } else if (line.slot != "handleControlCommand") {  // the nudges, on the control reader
      EXPECT_EQ(line.tid, result.pid) << line.slot;
    }
  }
  EXPECT_TRUE(found);
  Slots recorded;
  for (const std::string& slot : slots())
    if (slot != "handleControlCommand") recorded.push_back(slot);
  ASSERT_GE(recorded.size(), 4u);
  EXPECT_EQ(Slots(recorded.end() - 4, recorded.end()),
            (Slots{"stopLiveEditing", "stop", "teardown", "destroy"}));
}

}  // namespace
