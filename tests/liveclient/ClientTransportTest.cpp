// The client transport end to end: kindlet-control serves the registry and
// starts the installed kindlet (or several), which record what reaches the
// plug-in.
#include <sys/stat.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "KindletTestSupport.h"

using kindlettest::RunResult;

namespace {

class ClientTransport : public testing::Test {
 protected:
  // kindlet-control --start with `script`, its own `options`, and kindlet's
  // required options plus `kindletOptions`.
  RunResult control(const std::string& script, const std::vector<std::string>& options,
                    const std::string& opTree = exampleScene(),
                    const std::vector<std::string>& kindletOptions = {}) {
    std::vector<std::string> arguments = {kindlettest::testRoot() + "/bin/kindlet-control",
                                          "--start", "--timeout", "60", "--script",
                                          dir.write("script.txt", script)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::vector<std::string> required = {
        "--", "-selvaneRoot", kindlettest::testRoot(), "-tempDir", dir.path(),
        "-renderer", "recording", "-renderMethodName", "liveRender", "-recordFile", record(),
        "-arbolite3OpTree", opTree};
    arguments.insert(arguments.end(), required.begin(), required.end());
    arguments.insert(arguments.end(), kindletOptions.begin(), kindletOptions.end());
    return kindlettest::run(arguments[0], arguments, {}, std::chrono::seconds(120));
  }
  static std::string exampleScene() {
    return kindlettest::testRoot() + "/share/kindlet/examples/scene.optree.json";
  }
  std::string record() const { return dir.file("record.txt"); }
  // The record without the live loop's own questions.
  std::vector<kindlettest::RecordLine> deliveries() const {
    std::vector<kindlettest::RecordLine> lines = kindlettest::readRecordFile(record());
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const kindlettest::RecordLine& line) {
                                 return line.slot == "hasQueuedUpdates" ||
                                        line.slot == "applyQueuedUpdates";
                               }),
                lines.end());
    return lines;
  }

  kindlettest::TempDir dir;
};

TEST_F(ClientTransport, AStopAfterTenThousandUpdatesComesAfterEveryOne) {
  // Every 2500th update is large enough to fill a good part of the ring.
  const std::string pad(70000, 'x');
  auto details = [&](int i) {
    return "{n=" + std::to_string(i) + (i % 2500 ? "" : ",pad=\"" + pad + "\"") + "}";
  };
  std::string script;
  for (int i = 0; i < 10000; ++i)
    script += "update {\"n\": " + std::to_string(i) +
              (i % 2500 ? "" : ", \"pad\": \"" + pad + "\"") + "}\n";
  script += "stop\n";
  const RunResult result = control(script, {});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const std::vector<kindlettest::RecordLine> lines = deliveries();
  // create setup start startLiveEditing, the updates, stopLiveEditing stop teardown destroy
  ASSERT_EQ(lines.size(), 4u + 10000u + 4u);
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(lines[4 + i].slot, "submitUpdate");
    ASSERT_EQ(lines[4 + i].details, details(i));
  }
  EXPECT_EQ(lines[10004].slot, "stopLiveEditing");
}

TEST_F(ClientTransport, TheRenderGoesOnThroughTheRegistrysOutagesAndRegistersAgain) {
  const RunResult result = control(
      "update {\"n\": 1}\n"
      "reset-control\n"
      "update {\"n\": 2}\n"
      "close-data\n"
      "sleep 2500\n"  // several reconnection attempts, each of which must stay quiet
      "update {\"n\": 3}\n"
      "stop\n",
      {});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  auto count = [](const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count(result.err, "[ERROR LiveRendering] LiveRenderClient: lost the controller"), 2u)
      << result.err;
  EXPECT_EQ(count(result.out, "registered LiveRenderSession_1 "), 3u) << result.out;
  std::vector<std::string> updates;
  for (const auto& line : deliveries())
    if (line.slot == "submitUpdate") updates.push_back(line.details);
  EXPECT_EQ(updates, (std::vector<std::string>{"{n=1}", "{n=2}", "{n=3}"}));
}

TEST_F(ClientTransport, OneUpdateServesSeveralRendersEachWithItsOwnPart) {
  const RunResult result = control(
      "update {\"a\": 1, \"__perRenderUpdateAttributes\": {\"1\": {\"own\": \"one\"}, "
      "\"2\": {\"own\": \"two\"}, \"3\": {\"own\": \"three\"}}}\n"
      "@2 command onlyTwo\n"
      "stop\n",
      {"--renders", "2"});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_NE(result.out.find("registered LiveRenderSession_1 sequenceID 1 "), std::string::npos);
  EXPECT_NE(result.out.find("registered LiveRenderSession_1 sequenceID 2 "), std::string::npos);
  std::multiset<std::string> updates, commands;
  for (const auto& line : deliveries()) {
    if (line.slot == "submitUpdate") updates.insert(line.details);
    if (line.slot == "handleControlCommand") commands.insert(line.details);
  }
  EXPECT_EQ(updates, (std::multiset<std::string>{"{own=\"one\",a=1}", "{own=\"two\",a=1}"}));
  EXPECT_EQ(commands, std::multiset<std::string>{"onlyTwo"});
}

TEST_F(ClientTransport, EachFileGetsANewSessionAndTheLastLivesToTeardown) {
  std::ifstream in(exampleScene());
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  dir.write("shot.000001.json", text);
  dir.write("shot.000002.json", text);
  const RunResult result =
      control("stop\n", {}, dir.file("shot.*.json"), {"-t", "1-2"});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const size_t first = result.out.find("registered LiveRenderSession_1 ");
  const size_t ended = result.out.find("session LiveRenderSession_1 ");
  const size_t second = result.out.find("registered LiveRenderSession_2 ");
  ASSERT_NE(second, std::string::npos) << result.out;
  EXPECT_LT(first, ended);
  EXPECT_LT(ended, second);
  std::vector<std::string> slots;
  for (const auto& line : deliveries()) slots.push_back(line.slot);
  EXPECT_EQ(slots, (std::vector<std::string>{"create", "setup", "start", "startLiveEditing",
                                             "stopLiveEditing", "stop", "setSceneIterator",
                                             "start", "startLiveEditing", "stopLiveEditing",
                                             "stop", "teardown", "destroy"}));
}

// A "kindlet" that registers and then never reads: its session is given up,
// and since it does not end when told, it is killed so that `wait` ends.
TEST_F(ClientTransport, AGivenUpKindletThatDoesNotEndIsKilledAndWaitEnds) {
  const std::string fake = dir.write(
      "kindlet",
      "#!/usr/bin/python3\n"
      "import json, os, sys, time, zmq\n"
      "s = zmq.Context().socket(zmq.DEALER)\n"
      "s.setsockopt(zmq.RCVHWM, 1)\n"
      "s.connect('tcp://127.0.0.1:' + sys.argv[sys.argv.index('-serviceRegistryPort') + 1])\n"
      "s.send(b'\\x01' + json.dumps({'session': 'LiveRenderSession_1', 'sequenceID': 0,"
      " 'opTreeFile': '', 'renderer': '', 'renderMethods': [], 'pid': os.getpid()}).encode())\n"
      "time.sleep(300)\n");
  ::chmod(fake.c_str(), 0755);
  std::string script;
  // More messages than the connection queues (1000), and 30 MB.
  for (int i = 0; i < 1500; ++i) script += "update {\"pad\": \"" + std::string(20000, 'x') + "\"}\n";
  const std::vector<std::string> arguments = {
      kindlettest::testRoot() + "/bin/kindlet-control", "--kindlet", fake, "--backlog-limit",
      "1000000", "--script", dir.write("script.txt", script + "stop\nwait\n")};
  const RunResult result = kindlettest::run(arguments[0], arguments, {}, std::chrono::seconds(60));
  EXPECT_EQ(result.exitStatus, 128 + 9) << result.err;
  EXPECT_NE(result.err.find(" has stopped reading: more than 976 KiB wait for it; giving the "
                            "session up ("), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(" was given up and has not ended after 5 s; killing it"),
            std::string::npos) << result.err;
}

TEST_F(ClientTransport, ALiveRenderWithoutRegistryEndsWith255) {
  const RunResult result = kindlettest::runKindlet(
      {"-selvaneRoot", kindlettest::testRoot(), "-tempDir", dir.path(), "-renderer", "recording",
       "-renderMethodName", "liveRender", "-renderMethodType", "liveRender", "-recordFile",
       record(), "-arbolite3OpTree", exampleScene()});
  EXPECT_EQ(result.exitStatus, 255);
  EXPECT_NE(result.err.find("[ERROR Kindlet] Could not get renderer plug-in for renderer "
                            "\"recording\": live-render client of session LiveRenderSession_1: "
                            "no service registry"),
            std::string::npos)
      << result.err;
  std::vector<std::string> slots;
  for (const auto& line : deliveries()) slots.push_back(line.slot);
  EXPECT_EQ(slots, (std::vector<std::string>{"create", "setup", "teardown", "destroy"}));
}

}  // namespace
