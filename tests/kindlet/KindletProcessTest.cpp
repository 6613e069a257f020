// The installed kindlet run as its parent would: exit statuses, exact lines,
// and the calls the recording renderer saw.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "support/KindletTestSupport.h"

using kindlettest::RunResult;

namespace {

const std::vector<std::string> kRequired = {"selvaneRoot", "tempDir", "arbolite3OpTree",
                                            "renderer", "renderMethodName"};

class KindletProcess : public ::testing::Test {
 protected:
  kindlettest::TempDir dir;
  std::string recordFile = dir.file("calls.txt");

  std::map<std::string, std::string> baseOptions() {
    return {{"selvaneRoot", kindlettest::testRoot()},
            {"tempDir", dir.path()},
            {"arbolite3OpTree", std::string(KINDLET_SOURCE_DIR) + "/examples/scene.optree.json"},
            {"renderer", "recording"},
            {"renderMethodName", "diskRender"},
            {"recordFile", recordFile}};
  }
  static std::vector<std::string> toArgv(const std::map<std::string, std::string>& options) {
    std::vector<std::string> argv;
    for (const auto& option : options) {
      argv.push_back("-" + option.first);
      argv.push_back(option.second);
    }
    return argv;
  }
  RunResult run(const std::map<std::string, std::string>& changes = {}) {
    auto options = baseOptions();
    for (const auto& change : changes) options[change.first] = change.second;
    return kindlettest::runKindlet(toArgv(options));
  }
  // The arguments group the plug-in was created with, as one line.
  std::string pluginArguments() {
    for (const auto& line : kindlettest::readRecordFile(recordFile)) {
      if (line.slot == "create") return line.details;
    }
    return "";
  }
  std::vector<std::string> lifecycle() {
    std::vector<std::string> slots;
    for (const auto& line : kindlettest::readRecordFile(recordFile))
      if (line.slot != "create" && line.slot != "destroy") slots.push_back(line.slot);
    return slots;
  }
};

TEST_F(KindletProcess, NoArgumentsPrintsEveryMissingOption) {
  RunResult result = kindlettest::runKindlet({});
  EXPECT_EQ(result.exitStatus, 255);
  EXPECT_EQ(result.out,
            "Missing selvaneRoot\nMissing tempDir\nMissing arbolite3OpTree\nMissing renderer\n"
            "Missing renderMethodName\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(KindletProcess, EachMissingOrEmptyRequiredOption) {
  for (const std::string& name : kRequired) {
    auto options = baseOptions();
    options.erase(name);
    RunResult missing = kindlettest::runKindlet(toArgv(options));
    EXPECT_EQ(missing.exitStatus, 255) << name;
    EXPECT_EQ(missing.out, "Missing " + name + "\n");
    EXPECT_EQ(missing.err, "");
  }
  RunResult empty = run({{"renderer", ""}});
  EXPECT_EQ(empty.exitStatus, 255);
  EXPECT_EQ(empty.out, "Missing renderer\n");
  EXPECT_FALSE(kindlettest::readRecordFile(recordFile).size());
}

TEST_F(KindletProcess, BatchRenderCallOrderAndArgumentsInKeyOrder) {
  RunResult result = run({{"frobnicate", "yes"}});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(lifecycle(), (std::vector<std::string>{"setup", "start", "stop", "teardown"}));
  // All slots on the main thread, which is the process itself.
  auto lines = kindlettest::readRecordFile(recordFile);
  ASSERT_FALSE(lines.empty());
  for (const auto& line : lines) EXPECT_EQ(line.tid, lines.front().tid) << line.slot;
  // Unknown options reach the plug-in; indexing adds empty t and threads.
  std::string arguments = pluginArguments();
  EXPECT_NE(arguments.find("frobnicate=\"yes\""), std::string::npos) << arguments;
  EXPECT_NE(arguments.find("t=\"\",tempDir=\"" + dir.path() + "\",threads=\"\"}"),
            std::string::npos)
      << arguments;
}

TEST_F(KindletProcess, ThreadsAndSequenceIDAreTakenAndHandedOn) {
  RunResult result = run({{"threads", "3"}, {"sequenceID", "0x10"}});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  std::string arguments = pluginArguments();
  EXPECT_NE(arguments.find("sequenceID=\"0x10\""), std::string::npos) << arguments;
  EXPECT_NE(arguments.find("threads=\"3\""), std::string::npos) << arguments;
  EXPECT_EQ(lifecycle(), (std::vector<std::string>{"setup", "start", "stop", "teardown"}));
}

TEST_F(KindletProcess, SetupResultBecomesTheExitStatus) {
  RunResult result = run({{"setupResult", "7"}});
  EXPECT_EQ(result.exitStatus, 7);
  EXPECT_NE(result.err.find("Error calling setup() on render plug-in: \"recording\". "
                            "Error code returned: 7"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(lifecycle(), (std::vector<std::string>{"setup", "teardown"}));
}

TEST_F(KindletProcess, UnknownRendererAndUnreadableOpTreeGive255) {
  RunResult unknown = run({{"renderer", "noSuchRenderer"}});
  EXPECT_EQ(unknown.exitStatus, 255);
  EXPECT_NE(unknown.err.find("Could not get renderer plug-in for renderer \"noSuchRenderer\""),
            std::string::npos)
      << unknown.err;

  std::string unreadable = dir.write("locked.optree.json", "{}");
  chmod(unreadable.c_str(), 0);
  for (const std::string& file : {unreadable, dir.file("absent.optree.json")}) {
    RunResult result = run({{"arbolite3OpTree", file}});
    EXPECT_EQ(result.exitStatus, 255);
    EXPECT_NE(result.err.find("Error creating XoScenegraphIterator from Arbolite3 Op tree file \"" +
                              file + "\"."),
              std::string::npos)
        << result.err;
  }
  EXPECT_TRUE(lifecycle().empty());
}

}  // namespace
