// kindlet-control as kindlet's parent, run from a clean environment: what it
// hands down, how it reports kindlet's end, and the analytics report.
#include <unistd.h>

#include <algorithm>
#include <regex>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "KindletTestSupport.h"

using kindlettest::RunResult;
using kindlettest::TempDir;

namespace {

const std::string root = kindlettest::testRoot();
const std::string scene = root + "/share/kindlet/examples/scene.optree.json";

// Nothing but PATH from the parent (sanitizer settings of the test aside).
std::map<std::string, std::string> cleanEnvironment(std::map<std::string, std::string> extra = {}) {
  std::map<std::string, std::string> environment = {
      {"PATH", "/usr/bin:/bin"},
      {"SELVANE_INTERNAL_PYTHONHOME", ""},
      {"SELVANE_INTERNAL_PYTHONPATH", ""},
      {"SELVANE_DEFAULT_ASSET_PLUGIN", ""},
      {"SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN", ""}};
  for (const auto& entry : extra) environment[entry.first] = entry.second;
  return environment;
}

// `program` with `arguments`, its argv[0] the program itself.
RunResult control(const std::string& program, std::vector<std::string> arguments,
                  const std::map<std::string, std::string>& environment) {
  arguments.insert(arguments.begin(), program);
  return kindlettest::run(program, arguments, environment);
}

std::vector<std::string> filesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (boost::filesystem::directory_iterator entry(directory), end; entry != end; ++entry)
    names.push_back(entry->path().filename().string());
  return names;
}

TEST(KindletControl, BatchRenderFromACleanEnvironmentWritesAndAnnouncesTheReport) {
  TempDir scratch;
  const std::string reports = scratch.file("reports");
  boost::filesystem::create_directory(reports);
  const RunResult result =
      control(root + "/bin/kindlet-control",
              {"render", "--", "-tempDir", scratch.path(), "-arbolite3OpTree", scene,
               "-renderer", "recording", "-renderMethodName", "diskRender", "-recordFile",
               scratch.file("calls.txt")},
              cleanEnvironment({{"SELVANE_ANALYTICS_DIR", reports}, {"SELVANE_RELEASE", "4.2"}}));
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  const auto slots =
      kindlettest::recordedSlots(kindlettest::readRecordFile(scratch.file("calls.txt")));
  EXPECT_NE(std::find(slots.begin(), slots.end(), "stop"), slots.end());

  // One report, whole, named for the process, nothing temporary left.
  const std::vector<std::string> names = filesIn(reports);
  ASSERT_EQ(names.size(), 1u);
  const std::string path = reports + "/" + names[0];
  rapidjson::Document report;
  ASSERT_FALSE(report.Parse(kindlettest::readFile(path).c_str()).HasParseError());
  EXPECT_EQ(report["version"].GetInt(), 1);
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  EXPECT_EQ(std::string(report["host"].GetString()), host);
  const int pid = report["pid"].GetInt();
  EXPECT_EQ(names[0].rfind("kindlet-" + std::string(host) + "-" + std::to_string(pid) + "-", 0), 0u);
  const auto& records = report["records"];
  ASSERT_EQ(records.Size(), 2u);
  EXPECT_STREQ(records[0]["name"].GetString(), "selvane.build");
  EXPECT_STREQ(records[0]["value"].GetString(), "4.2");
  EXPECT_STREQ(records[1]["name"].GetString(), "selvane.process.cost");
  const auto& cost = records[1]["value"];
  EXPECT_GT(cost["wallSeconds"].GetDouble(), cost["cpuSeconds"].GetDouble() / 4);
  EXPECT_GT(cost["cpuSeconds"].GetDouble(), 0);
  EXPECT_GT(cost["peakResidentBytes"].GetUint64(), 1u << 20);
  EXPECT_GT(cost["bytesRead"].GetUint64(), 0u);
  EXPECT_GT(cost["bytesWritten"].GetUint64(), 0u);
  EXPECT_EQ(cost.MemberCount(), 5u);

  EXPECT_NE(result.err.find("Analytics report will be written to: " + path), std::string::npos);
  EXPECT_NE(result.err.find("Analytics report was written to: " + path), std::string::npos);
  const std::regex announced("kindlet-control: analytics report " + path +
                             " \\{\"wallSeconds\":[0-9.e-]+,\"cpuSeconds\":[0-9.e-]+,"
                             "\"peakResidentBytes\":[0-9]+,\"bytesRead\":[0-9]+,"
                             "\"bytesWritten\":[0-9]+\\}\n");
  EXPECT_TRUE(std::regex_search(result.err, announced)) << result.err;
}

TEST(KindletControl, AReportIsWrittenWhenALaterFileFailsButNotWhenTheBootstrapFails) {
  TempDir scratch;
  const std::string reports = scratch.file("reports");
  boost::filesystem::create_directory(reports);
  scratch.write("shot.000001.optree.json", kindlettest::readFile(scene));
  scratch.write("shot.000002.optree.json", "{ not json");
  const RunResult later = control(
      root + "/bin/kindlet-control",
      {"render", "--", "-tempDir", scratch.path(), "-arbolite3OpTree",
       scratch.file("shot.*.optree.json"), "-t", "1-2", "-renderer", "recording",
       "-renderMethodName", "diskRender"},
      cleanEnvironment({{"SELVANE_ANALYTICS_DIR", reports}}));
  EXPECT_EQ(later.exitStatus, 255);
  const size_t failed = later.err.find("shot.000002.optree.json");
  const size_t written = later.err.find("Analytics report was written to: ");
  ASSERT_NE(failed, std::string::npos) << later.err;
  EXPECT_GT(written, failed) << later.err;
  EXPECT_NE(later.err.find("kindlet-control: kindlet failed: exit status 255\n"),
            std::string::npos);
  EXPECT_EQ(filesIn(reports).size(), 1u);

  // No asset plug-in names: the bootstrap fails before analytics opens.
  boost::filesystem::remove_all(reports);
  boost::filesystem::create_directory(reports);
  const RunResult bootstrapFailed = kindlettest::runKindlet(
      {"-selvaneRoot", root, "-tempDir", scratch.path(),
       "-arbolite3OpTree", scene, "-renderer", "recording", "-renderMethodName", "diskRender"},
      {{"SELVANE_ANALYTICS_DIR", reports}, {"SELVANE_DEFAULT_ASSET_PLUGIN", ""}});
  EXPECT_EQ(bootstrapFailed.exitStatus, 255);
  EXPECT_EQ(bootstrapFailed.err.find("Analytics"), std::string::npos);
  EXPECT_TRUE(filesIn(reports).empty());
}

// A root whose bin/kindlet is a script: every way a child can end, and what
// kindlet-control hands down to it.
TEST(KindletControl, ExitStatusAndReportFollowHowKindletEnded) {
  struct Case {
    const char* script;  // empty: no kindlet at all
    int status;
    const char* line;
  };
  const Case cases[] = {
      {"exit 7", 7, "kindlet-control: kindlet failed: exit status 7\n"},
      {"kill -TERM $$", 128 + 15, "kindlet-control: kindlet killed: signal 15 "},
      {"kill -SEGV $$", 128 + 11, "kindlet-control: kindlet crashed: signal 11 "},
      {"", 125, "kindlet-control: kindlet failed to start: "},
      // A report of an earlier process with this pid is not announced as kindlet's.
      {R"(printf '{"version":1,"records":[{"name":"selvane.process.cost","value":{}}]}' )"
       R"(> "$SELVANE_ANALYTICS_DIR/kindlet-$(uname -n)-$$-1.json"; exit 3)",
       3, "kindlet-control: kindlet failed: exit status 3\n"},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.script);
    TempDir fake;
    boost::filesystem::create_directory(fake.file("bin"));
    boost::filesystem::copy_file(root + "/bin/kindlet-control", fake.file("bin/kindlet-control"));
    boost::filesystem::permissions(fake.file("bin/kindlet-control"),
                                   boost::filesystem::owner_all);
    boost::filesystem::create_symlink(root + "/lib", fake.file("lib"));
    const std::string python = boost::filesystem::path(kindlettest::testRoot() + "/bin")
                                   .append("python" KINDLET_PYTHON_VERSION)
                                   .string();
    boost::filesystem::create_symlink(python, fake.file("bin/python" KINDLET_PYTHON_VERSION));
    if (*expected.script != '\0') {
      fake.write("bin/kindlet",
                 std::string("#!/bin/sh\necho \"$@|$SELVANE_INTERNAL_PYTHONHOME|"
                             "$SELVANE_DEFAULT_ASSET_PLUGIN|$__SELVANE_CONTROLLING_PROCESS\"\n") +
                     expected.script + "\n");
      boost::filesystem::permissions(fake.file("bin/kindlet"), boost::filesystem::owner_all);
    }
    const RunResult result = control(fake.file("bin/kindlet-control"), {"render", "--", "-a", "b"},
                                     cleanEnvironment({{"SELVANE_ANALYTICS_DIR", fake.path()}}));
    EXPECT_EQ(result.exitStatus, expected.status);
    EXPECT_NE(result.err.find(expected.line), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("analytics report"), std::string::npos) << result.err;
    if (*expected.script != '\0') {
      EXPECT_EQ(result.out.rfind("-selvaneRoot " + fake.path() + " -a b|" + fake.path() +
                                     "/bin/python" KINDLET_PYTHON_VERSION "|FileAsset|" +
                                     std::to_string(result.pid) + ";",
                                 0),
                0u)
          << result.out;
    }
  }
}

}  // namespace
