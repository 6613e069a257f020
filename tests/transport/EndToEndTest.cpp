// The installed kindlet in a live render, driven over both channels by the
// installed kindlet-control, with the recording renderer plug-in.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KindletTestSupport.h"

namespace {

using kindlettest::testRoot;

TEST(LiveRenderEndToEnd, UpdatesAndCommandsFromStartToStop) {
  kindlettest::TempDir dir;
  const std::string recordFile = dir.file("calls.txt");
  // Spaced out, so that the loop is asleep for at least one of them.
  const std::string script = dir.write(
      "script.txt",
      "sleep 300\n"
      "update {\"camera\": {\"fov\": 45.0}}\nsleep 100\n"
      "command custom words\n"
      "update {\"__perRenderUpdateAttributes\": {\"7\": {\"mine\": 1}, \"8\": {\"theirs\": 2}},"
      " \"common\": \"x\"}\nsleep 100\n"
      "raw-data 0300000000000000 ffffff\n"  // a frame that doesn't parse
      "update {\"last\": [1, 2]}\nsleep 200\n"
      "stop\n");
  const kindlettest::RunResult result = kindlettest::run(
      testRoot() + "/bin/kindlet-control",
      {"kindlet-control", "--legacy-tcp", "--script", script, "--start", "--", "-selvaneRoot",
       testRoot(), "-tempDir", dir.path(), "-arbolite3OpTree",
       testRoot() + "/share/kindlet/examples/scene.optree.json", "-renderer", "recording",
       "-renderMethodName", "liveRender", "-recordFile", recordFile, "-sequenceID", "7"});
  const std::string output = result.out + result.err;
  EXPECT_EQ(result.exitStatus, 0) << output;
  EXPECT_NE(output.find("kindlet exited with status 0\n"), std::string::npos) << output;

  std::vector<std::string> mainCalls, updates, commands;
  for (const kindlettest::RecordLine& call : kindlettest::readRecordFile(recordFile)) {
    if (call.slot == "submitUpdate")
      updates.push_back(call.details);
    else if (call.slot == "handleControlCommand")
      commands.push_back(call.details);
    else if (call.slot != "hasQueuedUpdates")  // applyQueuedUpdates counts vary with timing
      mainCalls.push_back(call.slot);
  }
  EXPECT_EQ(updates, (std::vector<std::string>{"{camera={fov=45}}", "{mine=1,common=\"x\"}",
                                               "{last=[1 2]}"}));
  EXPECT_EQ(commands, std::vector<std::string>{"custom words"});
  ASSERT_GE(mainCalls.size(), 9u);
  EXPECT_EQ(std::vector<std::string>(mainCalls.begin(), mainCalls.begin() + 5),
            (std::vector<std::string>{"create", "setup", "start", "startLiveEditing",
                                      "applyQueuedUpdates"}));
  EXPECT_EQ(std::vector<std::string>(mainCalls.end() - 4, mainCalls.end()),
            (std::vector<std::string>{"stopLiveEditing", "stop", "teardown", "destroy"}));
}

}  // namespace
