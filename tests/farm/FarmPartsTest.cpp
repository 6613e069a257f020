// The farm driver's pieces in-process: scheduler retries, and which frames a
// retried chunk renders again. Frame lists written for -t are read back in
// the driver's tests.
#include <gtest/gtest.h>

#include <signal.h>

#include <fstream>

#include "ChunkStatus.h"
#include "Command.h"
#include "JobState.h"
#include "KindletTestSupport.h"

using namespace Farm;

TEST(FarmScheduler, RetriesOnlyTransientFailuresWithGrowingDelays) {
  struct Case {
    std::vector<CommandResult> results;  // what successive runs give
    size_t expectedRuns;
    bool expectedOk;
  };
  const CommandResult busy{true, 1, "", "sbatch: error: Socket timed out on send/recv operation\n"};
  const CommandResult bad{true, 1, "", "sbatch: error: invalid partition specified: x\n"};
  const CommandResult good{true, 0, "42\n", ""};
  const CommandResult missing{false, -1, "", ""};
  const std::vector<Case> cases = {
      {{busy, busy, good}, 3, true},
      {{bad, good}, 1, false},
      {{missing, good}, 1, false},
      {{busy, busy, busy, busy, busy, busy, busy}, 6, false},
  };
  for (const Case& c : cases) {
    size_t runs = 0;
    std::vector<long> delays;
    const CommandResult result = runWithRetries(
        {"sbatch"}, RetryPolicy(),
        [&](std::chrono::milliseconds delay) { delays.push_back(delay.count()); return true; },
        [&](const std::vector<std::string>&) { return c.results[runs++]; });
    EXPECT_EQ(runs, c.expectedRuns);
    EXPECT_EQ(result.ok(), c.expectedOk);
    for (size_t i = 1; i < delays.size(); ++i) EXPECT_EQ(delays[i], 2 * delays[i - 1]);
  }
}

TEST(FarmJobState, RetryRendersOnlyWhatTheFailedAttemptDidNotAndStopsAtTheLimit) {
  kindlettest::TempDir dir;
  Job job;
  job.chunks = {{1, 2, 3}, {4, 5}};
  JobState state(dir.path(), job, {6}, 2);
  EXPECT_EQ(state.chunksToRun(), (std::vector<int>{0, 1}));
  EXPECT_EQ(state.startAttempt(0), 1);
  ChunkStatus status;
  status.host = "n1";
  status.finished = true;
  status.exitStatus = 137;
  status.frames = {{1, true, 2.5, ""}, {2, false, 0, ""}, {3, false, 0, ""}};
  writeChunkStatus(chunkAttemptDir(dir.path(), 0, 1), status);
  state.finishAttempt(0, 1, -1, "");

  EXPECT_EQ(state.chunksToRun(), (std::vector<int>{0, 1}));
  EXPECT_EQ(state.startAttempt(0), 2);
  std::ifstream frames(chunkAttemptDir(dir.path(), 0, 2) + "/frames");
  std::string line;
  std::getline(frames, line);
  EXPECT_EQ(line, "2,3");
  state.finishAttempt(0, 2, -1, "task killed by signal 9");  // died before writing a status
  EXPECT_EQ(state.chunksToRun(), std::vector<int>{1});
  state.close();

  const auto& results = state.frames();
  ASSERT_EQ(results.size(), 6u);
  EXPECT_EQ(results[0].state, FrameState::Rendered);
  EXPECT_EQ(results[0].host, "n1");
  EXPECT_EQ(results[0].attempts, 1);
  EXPECT_EQ(results[1].state, FrameState::Failed);
  EXPECT_EQ(results[1].attempts, 2);
  EXPECT_EQ(results[1].note, "task killed by signal 9");
  EXPECT_EQ(results[5].state, FrameState::Missing);
  EXPECT_EQ(state.rendered(), 1);
}

TEST(FarmScheduler, ACommandPastItsDeadlineIsKilledAndCountsAsTransient) {
  CommandLimits limits;
  limits.deadline = std::chrono::milliseconds(300);
  const CommandResult result = runCommand({"/bin/sleep", "30"}, limits);
  EXPECT_EQ(result.exitStatus, 128 + SIGKILL);
  EXPECT_TRUE(isTransientFailure(result)) << result.err;
}
