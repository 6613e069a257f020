// kindlet-farm in local mode, run from the installed root with the recording
// renderer: which frames rendered how often (the record file tells), retries,
// the table and the exit status.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <iterator>
#include <regex>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "ChunkStatus.h"
#include "Job.h"
#include "KindletTestSupport.h"

using kindlettest::TempDir;

namespace {

std::string farmPath() { return kindlettest::testRoot() + "/bin/kindlet-farm"; }

// Frames whose scene's only child names them ("/root(f7)").
void writeFrames(const TempDir& dir, int count, int malformed = 0) {
  for (int frame = 1; frame <= count; ++frame) {
    char name[64];
    snprintf(name, sizeof name, "shot.%06d.optree.json", frame);
    dir.write(name, frame == malformed ? "{ not json"
                                       : "{\"optree\": 1, \"root\": {\"type\": \"root\", \"children\": "
                                         "[{\"name\": \"f" + std::to_string(frame) + "\"}]}}");
  }
}

// Completed renders (start, then stop) per frame, over every kindlet that
// wrote to the file; each is told apart by its main thread's id.
std::map<int, int> completedRenders(const std::string& recordFile) {
  std::map<long, int> sceneOf;
  std::map<long, bool> started;
  std::map<int, int> done;
  const std::regex scene("/root\\(f(\\d+)\\).*");
  for (const auto& line : kindlettest::readRecordFile(recordFile)) {
    std::smatch match;
    if ((line.slot == "create" || line.slot == "setSceneIterator") && std::regex_match(line.details, match, scene))
      sceneOf[line.tid] = std::stoi(match[1]);
    if (line.slot == "start") started[line.tid] = true;
    if (line.slot == "stop" && started[line.tid]) {
      started[line.tid] = false;
      ++done[sceneOf[line.tid]];
    }
  }
  return done;
}

std::vector<std::string> farmArguments(const TempDir& dir, const std::vector<std::string>& farmOptions,
                                       const std::string& frames, const std::string& extra = "0") {
  std::vector<std::string> arguments{farmPath(), "--job-dir", dir.file("job")};
  arguments.insert(arguments.end(), farmOptions.begin(), farmOptions.end());
  arguments.insert(arguments.end(),
                   {"--", "-selvaneRoot", kindlettest::testRoot(), "-tempDir", dir.path(), "-renderer", "recording",
                    "-renderMethodName", "diskRender", "-arbolite3OpTree", dir.file("shot.*.optree.json"), "-t",
                    frames, "-recordFile", dir.file("record.txt"), "-startDelayMs", extra});
  return arguments;
}

// The table row of a frame, as its words.
std::vector<std::string> row(const std::string& out, int frame) {
  for (const std::string& line : kindlettest::splitLines(out)) {
    std::istringstream words(line);
    std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
    if (!fields.empty() && fields[0] == std::to_string(frame)) return fields;
  }
  return {};
}

}  // namespace

TEST(FarmLocal, EveryFrameOnceAFailingChunkRetriedAndReported) {
  TempDir dir;
  writeFrames(dir, 9, 5);  // frame 5 can't be read: its chunk (5, 6) fails every time
  const auto result = kindlettest::run(
      farmPath(), farmArguments(dir, {"--chunk-size", "2", "--parallel", "3", "--retries", "2"}, "1-10,3"));
  EXPECT_EQ(result.exitStatus, 1) << result.err;

  const std::map<int, int> expected{{1, 1}, {2, 1}, {3, 1}, {4, 1}, {7, 1}, {8, 1}, {9, 1}};
  EXPECT_EQ(completedRenders(dir.file("record.txt")), expected);
  // frame, status, host, seconds, kindlet's exit status, attempts
  for (const auto& expected : std::map<int, std::string>{{1, "rendered 0 1"}, {5, "failed 255 3"}}) {
    const auto fields = row(result.out, expected.first);
    ASSERT_GE(fields.size(), 6u) << result.out;
    EXPECT_EQ(fields[1] + " " + fields[4] + " " + fields[5], expected.second);
  }
  EXPECT_EQ(row(result.out, 6).at(1), "failed");
  EXPECT_EQ(row(result.out, 10).at(1), "missing");
  EXPECT_NE(result.out.find("7 of 10 frames rendered, 2 failed, 1 missing"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("Cost from 7 analytics reports"), std::string::npos);  // one per kindlet run
}

TEST(FarmLocal, KilledKindletIsRetriedForTheFramesItHadNotRendered) {
  TempDir dir;
  writeFrames(dir, 6);
  const std::string firstAttempt = Farm::chunkAttemptDir(dir.file("job"), 0, 1);
  bool killed = false;
  // Kills the first chunk's kindlet once it has rendered a frame.
  auto killOnce = [&] {
    Farm::ChunkStatus status;
    if (killed || !Farm::readChunkStatus(firstAttempt, status) || !status.frames[0].rendered) return false;
    const std::string command = "pkill -KILL -P " + std::to_string(status.controlPid);
    killed = system(command.c_str()) == 0;
    return false;
  };
  const auto result = kindlettest::run(
      farmPath(), farmArguments(dir, {"--chunk-size", "3", "--parallel", "2"}, "1-6", "400"), {},
      std::chrono::seconds(90), killOnce);
  ASSERT_TRUE(killed);
  EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
  EXPECT_EQ(completedRenders(dir.file("record.txt")),
            (std::map<int, int>{{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}}));
  EXPECT_EQ(row(result.out, 1).at(5), "1");
  EXPECT_EQ(row(result.out, 3).at(5), "2");
  EXPECT_NE(result.out.find("6 of 6 frames rendered"), std::string::npos);
}

// One attempt through the task, as a node runs it: frame 2's Op tree file is
// not there (kindlet would pass over it without a word and number the rest
// from 1), frame 3 writes its image elsewhere, frame 4 too and its expected
// image is an old one. Only frame 1 counts.
TEST(FarmLocal, AFrameCountsOnlyWithItsOwnFileRenderedAndItsOutputsNew) {
  TempDir dir;
  for (int frame : {1, 3, 4}) {
    const std::string output = dir.file(frame == 1 ? "img.####.png" : "elsewhere.png");
    dir.write("shot.00000" + std::to_string(frame) + ".optree.json",
              R"({"optree": 1, "root": {"type": "root", "attributes": {"renderSettings": {"resolution": [4, 4],
                  "samples": 1, "frame": )" + std::to_string(frame) + R"(, "output": ")" + output + R"("}},
                  "children": [{"name": "cam", "type": "camera"}]}})");
  }
  dir.write("img.0004.png", "old");
  Farm::Job job;
  job.root = kindlettest::testRoot();
  job.kindletOptions = {"-selvaneRoot", job.root, "-tempDir", dir.path(), "-renderer", "pathtracer",
                        "-renderMethodName", "diskRender", "-arbolite3OpTree", dir.file("shot.*.optree.json")};
  job.expectedOutputs = {dir.file("img.####.png")};
  job.chunks = {{1, 2, 3, 4}};
  Farm::writeJob(dir.path(), job);
  Farm::prepareAttempt(dir.path(), 0, 1, job.chunks[0]);
  EXPECT_EQ(kindlettest::run(farmPath(), {farmPath(), "task", dir.path(), "0", "1"}).exitStatus, 1);
  Farm::ChunkStatus status;
  ASSERT_TRUE(Farm::readChunkStatus(Farm::chunkAttemptDir(dir.path(), 0, 1), status));
  std::vector<std::string> outcomes;
  for (const auto& frame : status.frames)
    outcomes.push_back(frame.rendered ? "rendered" : frame.note.substr(0, frame.note.find(" on ")));
  EXPECT_EQ(outcomes, (std::vector<std::string>{"rendered", "no Op tree file " + dir.file("shot.000002.optree.json"),
                                                "output " + dir.file("img.0003.png") + " is missing",
                                                "output " + dir.file("img.0004.png") + " was not written by this attempt"}));
}

TEST(FarmLocal, UsageErrors) {
  TempDir dir;
  const std::vector<std::vector<std::string>> cases = {
      {farmPath(), "--mode", "cloud", "--", "-arbolite3OpTree", "a.*.json", "-t", "1"},
      {farmPath(), "--", "-arbolite3OpTree", "a.json", "-t", "1"},
      {farmPath(), "--", "-arbolite3OpTree", "a.*.json"},
      {farmPath(), "-arbolite3OpTree", "a.*.json", "-t", "1"},
  };
  for (const auto& arguments : cases) {
    const auto result = kindlettest::run(farmPath(), arguments);
    EXPECT_EQ(result.exitStatus, 2) << arguments[1];
    EXPECT_NE(result.err.find("usage: kindlet-farm"), std::string::npos);
  }
  // Frame lists kindlet would read leniently: refused, the token named.
  const std::pair<const char*, const char*> lists[] = {
      {"1..12", "\"1..12\"\n"}, {"1-x", "\"1-x\"\n"}, {"3-", "\"3-\"\n"},
      {"1-3,x", "\"x\"\n"}, {"x,2", "\"x\"\n"}, {"5-3", "\"5-3\"\n"}, {"1,,2", "\"\"\n"},
      {"0-2000000000", "more than 1000000 frames (at \"0-2000000000\")"}};
  for (const auto& list : lists) {
    const auto result = kindlettest::run(
        farmPath(), {farmPath(), "--", "-arbolite3OpTree", "a.*.json", "-t", list.first});
    EXPECT_EQ(result.exitStatus, 2) << list.first;
    EXPECT_NE(result.err.find(list.second), std::string::npos) << result.err;
  }
}

// Slurm mode against scheduler commands of the test's own (no other program
// is on PATH): the first sbatch is accepted but times out, and squeue knows
// the job by its name; or sbatch hangs until the driver is told to stop; or
// there is no sbatch at all.
TEST(FarmSlurm, ASubmissionIsMadeOnceRunsOnlyWhileWantedAndCountsOnlyWhatHappened) {
  TempDir dir;
  writeFrames(dir, 2);
  boost::filesystem::create_directory(dir.file("bin"));
  dir.write("bin/sbatch", "#!/bin/sh\necho \"$PPID\" >> \"$FAKE/sbatch.calls\"\n"
                          "[ \"$FAKE_HANG\" = 1 ] && exec /bin/sleep 30\n"
                          "for a; do case \"$a\" in --job-name=*) echo \"${a#--job-name=}\" > \"$FAKE/name\";; esac; done\n"
                          "echo 'sbatch: error: Socket timed out on send/recv operation' >&2; exit 1\n");
  dir.write("bin/squeue", "#!/bin/sh\nread -r name < \"$FAKE/name\"\n"
                          "for a; do [ \"$a\" = \"--name=$name\" ] && echo 77; done; exit 0\n");
  for (const char* name : {"bin/sbatch", "bin/squeue"})
    boost::filesystem::permissions(dir.file(name), boost::filesystem::owner_all);
  struct Case { const char* bin; const char* hang; int status; size_t submissions; const char* seen; };
  for (const Case& c : {Case{"bin", "0", 1, 1, "was accepted after all; it is not submitted again"},
                        Case{"bin", "1", 128 + SIGTERM, 1, "interrupted by a stop request"},
                        Case{"none", "0", 1, 0, "0 kindlet runs"}}) {
    std::remove(dir.file("sbatch.calls").c_str());
    boost::filesystem::remove_all(dir.file("job"));
    bool stopped = false;
    auto stopDuringSbatch = [&] {
      const auto calls = kindlettest::readLines(dir.file("sbatch.calls"));
      if (!calls.empty() && !stopped && *c.hang == '1') stopped = kill(std::stoi(calls[0]), SIGTERM) == 0;
      return false;
    };
    const auto result = kindlettest::run(
        farmPath(), farmArguments(dir, {"--mode", "slurm", "--retries", "0", "--poll", "0.1"}, "1-2"),
        {{"PATH", dir.file(c.bin)}, {"FAKE", dir.path()}, {"FAKE_HANG", c.hang}}, std::chrono::seconds(20),
        stopDuringSbatch);
    SCOPED_TRACE(c.seen);
    EXPECT_EQ(result.exitStatus, c.status) << result.out << result.err;
    EXPECT_EQ(kindlettest::readLines(dir.file("sbatch.calls")).size(), c.submissions);
    EXPECT_NE((result.out + result.err).find(c.seen), std::string::npos) << result.out << result.err;
    EXPECT_EQ(result.out.find("attempt-1/log"), std::string::npos) << result.out;
  }
}

namespace {

// The state letter and the parent of a process from its stat line; 'X' when
// it is gone.
std::pair<char, long> stateAndParent(long pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(stat, text);
  char state = 'X';
  long parent = 0;
  const size_t close = text.rfind(')');
  if (close != std::string::npos) sscanf(text.c_str() + close + 2, "%c %ld", &state, &parent);
  return {state, parent};
}

}  // namespace

TEST(FarmLocal, StopRequestEndsEveryChunkAndItsKindlet) {
  TempDir dir;
  writeFrames(dir, 4);
  const std::string attempt = Farm::chunkAttemptDir(dir.file("job"), 0, 1);
  std::vector<long> tasks;
  // SIGTERM to the driver (the task's parent) once the first kindlet renders.
  auto stopOnce = [&] {
    Farm::ChunkStatus status;
    if (!tasks.empty() || kindlettest::readRecordFile(dir.file("record.txt")).empty() ||
        !Farm::readChunkStatus(attempt, status))
      return false;
    tasks = {status.pid, status.controlPid};
    kill(static_cast<pid_t>(stateAndParent(status.pid).second), SIGTERM);
    return false;
  };
  const auto result = kindlettest::run(
      farmPath(), farmArguments(dir, {"--chunk-size", "1", "--parallel", "2"}, "1-4", "3000"), {},
      std::chrono::seconds(60), stopOnce);
  ASSERT_FALSE(tasks.empty());
  EXPECT_EQ(result.exitStatus, 128 + SIGTERM);
  for (const auto& line : kindlettest::readRecordFile(dir.file("record.txt"))) tasks.push_back(line.tid);
  for (long pid : tasks) {  // gone, or a zombie waiting for its parent
    const char state = stateAndParent(pid).first;
    EXPECT_TRUE(state == 'X' || state == 'Z') << pid;
  }
}
