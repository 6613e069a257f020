// A farm job as it lies in its job directory, which every task reads:
//   job.json                        what to render and how (below)
//   chunk-NNNN/attempt-A/frames     the frame list this attempt renders
//   chunk-NNNN/attempt-A/status.json, log, analytics/   written by the task
#pragma once

#include <string>
#include <vector>

namespace Farm {

struct Job {
  std::string root;                         // install root; kindlet-control is in <root>/bin
  std::vector<std::string> kindletOptions;  // the user's, without -t and -threads
  int threads = 1;                          // -threads of every chunk
  std::vector<std::string> expectedOutputs; // --expect-output patterns, "#" for the frame
  std::vector<std::vector<int>> chunks;     // frames of each chunk, in order
};

// Consecutive pieces of `size` frames (the last may be shorter).
std::vector<std::vector<int>> splitIntoChunks(const std::vector<int>& frames, int size);

// Throw std::runtime_error with a message that names the file.
void writeJob(const std::string& jobDir, const Job& job);
Job readJob(const std::string& jobDir);

std::string chunkAttemptDir(const std::string& jobDir, int chunk, int attempt);

// Creates the attempt's directory and writes its frame list.
void prepareAttempt(const std::string& jobDir, int chunk, int attempt, const std::vector<int>& frames);

}  // namespace Farm
